#include "platform/mount_table.h"

#include <cstdio>
#include <mntent.h>

#include "platform/replaceable.h"

namespace pallion {

namespace {

class SystemMountTable : public MountTable {
 public:
  std::optional<std::vector<MountedFileSystem>> mountedFileSystems() override {
    std::FILE* table = setmntent("/proc/self/mounts", "re");
    if (!table) return std::nullopt;
    std::vector<MountedFileSystem> mounted;
    mntent entry{};
    char strings[8192];  // one line: two paths of PATH_MAX at most are of use here
    while (getmntent_r(table, &entry, strings, sizeof strings)) {
      mounted.push_back({entry.mnt_fsname, entry.mnt_dir});
    }
    endmntent(table);
    return mounted;
  }
};

using Seam = Replaceable<MountTable, SystemMountTable>;

}  // namespace

MountTable& MountTable::current() { return Seam::current(); }
MountTable* MountTable::replace(MountTable* replacement) { return Seam::replace(replacement); }

}  // namespace pallion
