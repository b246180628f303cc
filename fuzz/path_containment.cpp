#include <filesystem>
#include <unistd.h>
#include <vector>

#include "file_operations/file_manager.h"
#include "file_operations/path_strings.h"
#include "fuzz/fuzz_target.h"
#include "tests/helpers/temporary_root.h"

// The input's first line is a path below the base; the next three are the texts of the links "x",
// "y" and "in/z" in it.

namespace pallion::fuzz {

namespace {

namespace fs = std::filesystem;

constexpr const char* kLinks[] = {"x", "y", "in/z"};

struct Device {
  test::TemporaryRoot root;
  fs::path base = root.makeDirectory("base");
  Device() {
    root.makeFile("base/file");
    root.makeFile("base/in/deep/file");
    root.makeFile("outside/file");
    root.makeFile("base-beside/file");  // begins like the base
  }
};

std::string takeLine(std::string_view& input) {
  const size_t end = std::min(input.find('\n'), input.size());
  std::string line(input.substr(0, end));
  input.remove_prefix(std::min(end + 1, input.size()));
  return line;
}

bool isInside(const fs::path& path, const fs::path& base) {
  return std::mismatch(base.begin(), base.end(), path.begin(), path.end()).first == base.end();
}

}  // namespace

void runInput(std::string_view input) {
  static const Device device;
  const std::string relative = takeLine(input);
  for (const char* name : kLinks) {
    const fs::path link = device.base / name;
    unlink(link.c_str());
    const std::string text = takeLine(input);
    // One that can't be made is not there.
    if (text.find('\0') == std::string::npos) (void)!symlink(text.c_str(), link.c_str());
  }
  const URL base = URL::fileURL(device.base.native(), URL::Kind::kDirectory);
  const URL suspicious = URL::fileURL(device.base.native() + "/" + relative);
  const std::optional<URL> real =
      PLFileManager::defaultManager().realPathForURL(&suspicious, &base);
  if (!real) return;

  require(!PallionAdditions::containsDotDotPathComponents(suspicious.path()),
          "no path with '..' is answered");
  const fs::path path = suspicious.fileSystemRepresentation();
  if (path.empty()) {
    require(!*real->fileSystemRepresentation(), "what names nothing turns into no name");
    return;
  }
  std::error_code failed;
  const fs::path canonicalBase = fs::canonical(device.base);
  if (!fs::is_symlink(path, failed)) {
    require(isInside(real->path(), canonicalBase), "the answer lies inside the base");
    const fs::path expected = fs::weakly_canonical(path, failed);
    require(failed || isInside(expected, canonicalBase), "what is inside by name is inside");
    require(failed || !fs::exists(path, failed) || expected == real->path(),
            "the answer is the real path");
    return;
  }
  const fs::path text = fs::read_symlink(path);
  require(text.is_relative(), "no absolute link is answered");
  const fs::path target = (path.parent_path() / text).lexically_normal();
  require(isInside(target, device.base), "a link's text stays inside the base");
}

}  // namespace pallion::fuzz
