#include "programs/common/link_guard.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <utility>

#include "foundation/open_restricted.h"

namespace pallion {

namespace {

// Below a root: what holds both layouts, and the ways in it that a run takes. Links that stand on
// them were put there on purpose.
constexpr const char* kGuarded = "private/var";
constexpr const char* kWays[] = {
    "private/var/mobile/Applications",
    "private/var/mobile/Library/Logs/Pallion",
    "private/var/mobile/Library/Logs/Shiftwell",
    "private/var/mobile/Library/Pallion",
    "private/var/palliond/Containers/Incoming",
    "private/var/palliond/Library/Pallion",
    "private/var/palliond/tmp",
};

bool leadsThroughLink(int root, const char* way) {
  const UniqueDescriptor found(openRestricted(root, way, O_PATH | O_CLOEXEC, RESOLVE_NO_SYMLINKS));
  return !found && errno == ELOOP;
}

// Puts a mount on top of the directory that shows the same, mounts below it included. 0 or an
// errno.
int coverWithoutLinks(int directory) {
  const UniqueDescriptor cover(open_tree(
      directory, "",
      AT_EMPTY_PATH | AT_RECURSIVE | OPEN_TREE_CLONE | static_cast<unsigned>(OPEN_TREE_CLOEXEC)));
  mount_attr attributes{};
  attributes.attr_set = MOUNT_ATTR_NOSYMFOLLOW;
  constexpr unsigned kEmptyPaths = MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH;
  const bool done = cover &&
                    mount_setattr(cover.get(), "", AT_EMPTY_PATH | AT_RECURSIVE, &attributes,
                                  sizeof attributes) == 0 &&
                    move_mount(cover.get(), "", directory, "", kEmptyPaths) == 0;
  return done ? 0 : errno;
}

}  // namespace

int guardAgainstLinks(int root, const std::string& path, UniqueDescriptor& entrance) {
  struct stat wanted {};
  if (fstat(root, &wanted) != 0) return errno;
  if (std::ranges::any_of(kWays, [&](const char* way) { return leadsThroughLink(root, way); }))
    return ELOOP;
  // From then on no mount of ours shows anywhere else.
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0)
    return errno;
  // The open directory belongs to the namespace that was left.
  UniqueDescriptor present(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  struct stat found {};
  if (!present || fstat(present.get(), &found) != 0) return errno;
  if (wanted.st_dev != found.st_dev || wanted.st_ino != found.st_ino) return ESTALE;
  const UniqueDescriptor guarded(
      openat(present.get(), kGuarded, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!guarded) return errno;
  if (const int error = coverWithoutLinks(guarded.get())) return error;
  entrance = std::move(present);
  return 0;
}

}  // namespace pallion
