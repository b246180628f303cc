#pragma once

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace pallion {

// openat with a restriction of the way that the kernel may take: `resolve` is of RESOLVE_NO_XDEV
// (EXDEV at a mount), RESOLVE_NO_SYMLINKS (ELOOP at a link) and their like. Linux 5.6.
inline int openRestricted(int directory, const char* path, int flags, unsigned resolve) {
  open_how how{};
  how.flags = static_cast<unsigned>(flags);
  how.resolve = resolve;
  return static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof how));
}

}  // namespace pallion
