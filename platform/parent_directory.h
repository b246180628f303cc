#pragma once

#include <string>
#include <string_view>

namespace pallion {

// Opens the directory that holds the item at `path` (O_PATH: for calls relative to it, not for
// reading) and stores the item's name, without slashes at the end. Links before the name are
// followed, as in every system call. A path may be longer than PATH_MAX. The descriptor is the
// caller's; -1 with errno set on failure: EINVAL for a path that ends in "." or
// "..", EBUSY for the root directory, ENOENT for an empty path.
int openParentDirectory(std::string_view path, std::string& name);

}  // namespace pallion
