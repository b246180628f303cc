#pragma once

#include <linux/magic.h>
#include <sys/vfs.h>

namespace pallion {

// Whether a file system puts changes on the medium in the order in which they were made, so that
// the sync of one file brings every earlier change of names and sizes with it: ext4 and xfs do,
// with their single log. Elsewhere, on btrfs for one, only what belongs to that file is sure to be
// there. What a tmpfs holds is gone with the power in any case.
inline bool keepsOrder(const struct statfs& volume) {
  return volume.f_type == EXT4_SUPER_MAGIC || volume.f_type == XFS_SUPER_MAGIC ||
         volume.f_type == TMPFS_MAGIC;
}

}  // namespace pallion
