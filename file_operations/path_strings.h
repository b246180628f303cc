#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace pallion {

// Strings from file-system representations. Strings are bytes here, so that a name that is not
// UTF-8 is kept as it is.
class PallionAdditions {
 public:
  // Exactly `length` bytes.
  static std::string stringWithFileSystemRepresentation(const char* bytes, size_t length) {
    return {bytes, length};
  }
  // Up to the NUL.
  static std::string stringWithFileSystemRepresentation(const char* bytes) {
    return stringWithFileSystemRepresentation(bytes, std::string_view(bytes).size());
  }
};

}  // namespace pallion
