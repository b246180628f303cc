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

namespace {

size_t replay(const std::filesystem::path& directory) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  for (const std::filesystem::path& path : files) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
    if (file.bad()) throw std::runtime_error("can't be read: " + path.string());
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);  // the last one printed is the one that ended the process
    // Exactly as large as the content, so that a sanitizer sees each byte read beyond it.
    const std::vector<uint8_t> bytes(content.begin(), content.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  return files.size();
}

}  // namespace

int main(int count, char** arguments) {
  try {
    size_t inputs = 0;
    for (int i = 1; i < count; ++i) inputs += replay(arguments[i]);
    if (inputs == 0) std::fputs("no input\n", stderr);
    return inputs == 0 ? 1 : 0;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
}
