#include "foundation/volume_order.h"

#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/vfs.h>

#include "foundation/unique_descriptor.h"

namespace pallion {

namespace {

// EXT4_IOC_CHECKPOINT of the kernel's fs/ext4/ext4.h (5.14), which no header of the system has, and
// its flag for only looking whether it could be done: ENODEV without a journal, ENOTTY on ext2,
// which has ext4's magic number. Takes CAP_SYS_ADMIN.
constexpr unsigned long kCheckpoint = _IOW('f', 43, uint32_t);
constexpr uint32_t kDryRun = 4;

bool hasJournal(int descriptor) {
  uint32_t flags = kDryRun;
  return ioctl(descriptor, kCheckpoint, &flags) == 0;
}

}  // namespace

bool VolumeOrder::isKept(const char* directory) {
  if (kept_) return *kept_;
  const UniqueDescriptor opened(open(directory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return opened && isKept(opened.get());
}

bool keepsOrder(int descriptor) {
  struct statfs volume {};
  if (fstatfs(descriptor, &volume) != 0) return false;
  if (volume.f_type == XFS_SUPER_MAGIC || volume.f_type == TMPFS_MAGIC) return true;
  if (volume.f_type != EXT4_SUPER_MAGIC) return false;
  // The journal of a mounted volume stays, so an answer is good for as long as the volume is the
  // same.
  thread_local struct statfs last {};
  thread_local bool journal = false;
  if (std::memcmp(&last.f_fsid, &volume.f_fsid, sizeof last.f_fsid) != 0) {
    journal = hasJournal(descriptor);
    last = volume;
  }
  return journal;
}

}  // namespace pallion
