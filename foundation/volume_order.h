#pragma once

namespace pallion {

// Whether the volume of an open file puts changes on the medium in the order in which they were
// made, so that the sync of one file brings every earlier change of names and sizes with it: ext4
// and xfs do, with their single log. Elsewhere only what belongs to that file is sure to be there:
// on btrfs, on ext2, on ext4 that was made without a journal, and on whatever is not known. What a
// tmpfs holds is gone with the power in any case. Any thread may call.
bool keepsOrder(int descriptor);

}  // namespace pallion
