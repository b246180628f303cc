#include "platform/parent_directory.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

namespace pallion {

namespace {

constexpr int kFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr size_t kLongestPiece = PATH_MAX - 1;  // the limit counts the NUL

int fail(int number) {
  errno = number;
  return -1;
}

// Opens a directory of any path length: the kernel gets pieces that it takes, each relative to the
// one before.
int openDirectory(std::string_view path) {
  int directory = AT_FDCWD;
  while (!path.empty()) {
    size_t length = path.size();
    if (length > kLongestPiece) {
      const size_t slash = path.rfind('/', kLongestPiece);
      if (slash == std::string_view::npos || slash == 0) {
        if (directory != AT_FDCWD) close(directory);
        return fail(ENAMETOOLONG);
      }
      length = slash;
    }
    const int next = openat(directory, std::string(path.substr(0, length)).c_str(), kFlags);
    const int number = errno;
    if (directory != AT_FDCWD) close(directory);
    if (next < 0) return fail(number);
    directory = next;
    path.remove_prefix(length);
    // The rest is relative to what was opened, not to the root.
    path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
  }
  return directory;
}

}  // namespace

int openParentDirectory(std::string_view path, std::string& name) {
  if (path.empty()) return fail(ENOENT);
  const size_t last = path.find_last_not_of('/');
  if (last == std::string_view::npos) return fail(EBUSY);
  path = path.substr(0, last + 1);
  const size_t slash = path.rfind('/');
  const std::string_view item = slash == std::string_view::npos ? path : path.substr(slash + 1);
  if (item == "." || item == "..") return fail(EINVAL);
  name = item;
  if (slash == std::string_view::npos) return openDirectory(".");
  return openDirectory(path.substr(0, slash == 0 ? 1 : slash));
}

}  // namespace pallion
