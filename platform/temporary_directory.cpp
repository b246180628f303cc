#include "platform/temporary_directory.h"

#include <cstdlib>

namespace pallion {

URL temporaryDirectory() {
  const char* path = std::getenv("TMPDIR");
  return URL::fileURL(path && *path == '/' ? path : "/tmp", URL::Kind::kDirectory);
}

}  // namespace pallion
