#include "platform/item_status.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace pallion {

namespace {

// A number that the C library's headers don't have yet; the same on every architecture but Alpha.
// Linux 6.6.
constexpr long kFchmodat2 = 452;

timespec toTimespec(const statx_timestamp& time) {
  timespec result{};
  result.tv_sec = time.tv_sec;
  result.tv_nsec = time.tv_nsec;
  return result;
}

}  // namespace

bool readStatus(const ItemReference& item, ItemStatus& status) {
  struct statx found {};
  const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (item.name ? 0 : AT_EMPTY_PATH);
  if (statx(item.descriptor, item.name ? item.name : "", flags, STATX_BASIC_STATS, &found) != 0) {
    return false;
  }
  status.device = makedev(found.stx_dev_major, found.stx_dev_minor);
  status.inode = found.stx_ino;
  status.mode = found.stx_mode;
  status.owner = found.stx_uid;
  status.group = found.stx_gid;
  status.links = found.stx_nlink;
  status.size = static_cast<off_t>(found.stx_size);
  status.allocated = static_cast<off_t>(found.stx_blocks * 512);
  status.represents = makedev(found.stx_rdev_major, found.stx_rdev_minor);
  status.accessed = toTimespec(found.stx_atime);
  status.modified = toTimespec(found.stx_mtime);
  status.changed = toTimespec(found.stx_ctime);
  status.isMountRoot = (found.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  return true;
}

bool sameItem(const ItemStatus& left, const ItemStatus& right) {
  return left.device == right.device && left.inode == right.inode;
}

bool sameContent(const ItemStatus& left, const ItemStatus& right) {
  return left.size == right.size && left.modified.tv_sec == right.modified.tv_sec &&
         left.modified.tv_nsec == right.modified.tv_nsec;
}

int setItemOwner(const ItemReference& item, uid_t owner, gid_t group) {
  return item.name ? fchownat(item.descriptor, item.name, owner, group, AT_SYMLINK_NOFOLLOW)
                   : fchown(item.descriptor, owner, group);
}

int setItemMode(const ItemReference& item, mode_t mode) {
  if (!item.name) return fchmod(item.descriptor, mode);
  if (syscall(kFchmodat2, item.descriptor, item.name, mode, AT_SYMLINK_NOFOLLOW) == 0) return 0;
  // The C library goes through /proc where the kernel lacks the call.
  return errno == ENOSYS ? fchmodat(item.descriptor, item.name, mode, AT_SYMLINK_NOFOLLOW) : -1;
}

}  // namespace pallion
