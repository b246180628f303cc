#pragma once

#include <cerrno>
#include <fcntl.h>

#include "foundation/open_restricted.h"

namespace pallion {

// Opens for reading without an access time to be noted, which only owners and the privileged may
// ask for (EPERM for all others, who then leave one). `directory` as for openat; answers like it.
inline int openUnnoticed(int directory, const char* path, int flags) {
  const int descriptor = openat(directory, path, flags | O_NOATIME);
  return descriptor < 0 && errno == EPERM ? openat(directory, path, flags) : descriptor;
}

// The same for a path of which no component may be a symbolic link (ELOOP).
inline int openUnnoticedWithoutLinks(int directory, const char* path, int flags) {
  const int descriptor = openRestricted(directory, path, flags | O_NOATIME, RESOLVE_NO_SYMLINKS);
  if (descriptor >= 0 || errno != EPERM) return descriptor;
  return openRestricted(directory, path, flags, RESOLVE_NO_SYMLINKS);
}

}  // namespace pallion
