#pragma once

#include <string>

#include "foundation/unique_descriptor.h"

namespace pallion {

// Has the kernel refuse, for this process alone, to follow symbolic links where old and new
// applications stand: whatever leads through one fails with ELOOP. Between the moment in which a
// directory is looked at and the one in which its name is used again, somebody may put a link to
// any other place there; what that would redirect becomes an error of one application.
//
// `root` is the open directory that is to become "/", `path` the path it was opened by. The process
// gets a mount namespace of its own, in which a mount that follows no links covers /private/var of
// the root. Both layouts are in it, so that renames between them stay renames; outside of it a
// system is full of links that its libraries need.
//
// 0, and `entrance` is what has to be entered in place of `root`. Otherwise an errno, and links are
// followed as ever: ENOENT without /private/var, ELOOP when links are part of the way to the
// applications already, EPERM without CAP_SYS_ADMIN, ENOSYS and EINVAL from kernels before 5.14 and
// where the present "/" is no mount. For a process that has one thread yet.
int guardAgainstLinks(int root, const std::string& path, UniqueDescriptor& entrance);

}  // namespace pallion
