#pragma once

#include <optional>

namespace pallion {

// Whether the volume of an open file puts changes on the medium in the order in which they were
// made, so that the sync of one file brings every earlier change of names and sizes with it: ext4
// and xfs do, with their single log. Elsewhere only what belongs to that file is sure to be there:
// on btrfs, on ext2, on ext4 that was made without a journal, and on whatever is not known. What a
// tmpfs holds is gone with the power in any case. Any thread may call.
bool keepsOrder(int descriptor);

// Whether one volume does, asked for the first of its files. One thread at a time.
class VolumeOrder {
 public:
  bool isKept(int descriptor) {
    if (!kept_) kept_ = keepsOrder(descriptor);
    return *kept_;
  }
  // By a directory that is opened for it; false when it can't be.
  bool isKept(const char* directory);

 private:
  std::optional<bool> kept_;
};

}  // namespace pallion
