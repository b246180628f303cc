#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

// Runs every file of the given directories through a fuzz target, sorted by name: what a fuzzer
// found once is looked at by every test run and every compiler.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int count, char** arguments) {
  try {
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < count; ++i) {
      for (const auto& entry : std::filesystem::directory_iterator(arguments[i]))
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    for (const std::filesystem::path& path : files) {
      std::printf("%s\n", path.c_str());
      std::fflush(stdout);  // the last one printed is the one that ended the process
      std::ifstream file(path, std::ios::binary);
      file.exceptions(std::ios::badbit);
      // Exactly as large as the content, so that a sanitizer sees each byte read beyond it.
      const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    if (files.empty()) std::fputs("no input\n", stderr);
    return files.empty() ? 1 : 0;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
}
