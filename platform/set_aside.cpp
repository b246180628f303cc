#include "platform/set_aside.h"

#include <cerrno>
#include <fcntl.h>
#include <stdio.h>
#include <utility>

#include "platform/uuid.h"

namespace pallion {

bool isSetAsideName(std::string_view name) {
  return name.starts_with(kSetAsidePrefix) && isUUID(name.substr(kSetAsidePrefix.size()));
}

int setAside(const char* path, std::string& newPath) {
  std::string from = path;
  // With a slash at the end the kernel would follow a link.
  while (from.size() > 1 && from.back() == '/') from.pop_back();
  const size_t slash = from.rfind('/');
  std::string to = from.substr(0, slash == std::string::npos ? 0 : slash + 1);
  to.append(kSetAsidePrefix).append(makeUUID());
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0) {
    // Some file systems know no flags. The name is new in any case.
    if (errno != EINVAL && errno != ENOSYS) return -1;
    if (rename(from.c_str(), to.c_str()) != 0) return -1;
  }
  newPath = std::move(to);
  return 0;
}

}  // namespace pallion
