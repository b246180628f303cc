#include "platform/make_path.h"

#include <algorithm>
#include <cerrno>
#include <string>
#include <sys/stat.h>

#include "platform/replaceable.h"

namespace pallion {

namespace {

int makeDirectory(const std::string& path, mode_t mode) {
  return mkdir(path.c_str(), mode) == 0 ? 0 : errno;
}

// The length of the path of what holds the item whose path is the first `length` bytes; 0 when that
// is the root or the current directory.
size_t parentLength(const std::string& path, size_t length) {
  const size_t slash = length == 0 ? std::string::npos : path.rfind('/', length - 1);
  if (slash == std::string::npos || slash == 0) return 0;
  const size_t last = path.find_last_not_of('/', slash);
  return last == std::string::npos ? 0 : last + 1;
}

class SystemMakePath : public MakePath {
 public:
  int make(const char* path, mode_t mode) override {
    std::string whole = path;
    while (whole.size() > 1 && whole.back() == '/') whole.pop_back();
    int number = makeDirectory(whole, mode);
    // Upwards to the first directory that stands or can be made ...
    size_t length = whole.size();
    while (number == ENOENT) {
      length = parentLength(whole, length);
      if (length == 0) return ENOENT;
      number = makeDirectory(whole.substr(0, length), mode);
    }
    // ... and down again. Another process may make the same ones meanwhile.
    while (length < whole.size()) {
      if (number != 0 && number != EEXIST) return number;
      const size_t name = whole.find_first_not_of('/', length);
      length = std::min(whole.find('/', name), whole.size());
      number = makeDirectory(whole.substr(0, length), mode);
    }
    return number;
  }
};

using Seam = Replaceable<MakePath, SystemMakePath>;

}  // namespace

MakePath& MakePath::current() { return Seam::current(); }
MakePath* MakePath::replace(MakePath* replacement) { return Seam::replace(replacement); }
MakePath& MakePath::system() { return Seam::system(); }

}  // namespace pallion
