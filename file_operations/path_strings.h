#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace pallion {

// Additions to strings that hold paths. Strings are bytes here, so that a name that is not UTF-8 is
// kept as it is.
class PallionAdditions {
 public:
  // A string from a file-system representation: exactly `length` bytes.
  static std::string stringWithFileSystemRepresentation(const char* bytes, size_t length) {
    return {bytes, length};
  }
  // Up to the NUL.
  static std::string stringWithFileSystemRepresentation(const char* bytes) {
    return stringWithFileSystemRepresentation(bytes, std::string_view(bytes).size());
  }

  // The names between the slashes of a path; the leading "/" of an absolute one is a component of
  // its own.
  static std::vector<std::string> pathComponents(std::string_view path);
  // True when one of the components is "..".
  static bool containsDotDotPathComponents(std::string_view path);
};

}  // namespace pallion
