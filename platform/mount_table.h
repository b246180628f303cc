#pragma once

#include <optional>
#include <string>
#include <vector>

namespace pallion {

struct MountedFileSystem {
  std::string from;  // what is mounted, such as "/dev/loop0p1"
  std::string on;    // where, an absolute path
};

class MountTable {
 public:
  MountTable() = default;
  MountTable(const MountTable&) = delete;
  MountTable& operator=(const MountTable&) = delete;
  virtual ~MountTable() = default;

  // The mounted file systems in the order of the kernel's table, without asking the file systems
  // themselves; nothing with errno set when the table can't be read.
  virtual std::optional<std::vector<MountedFileSystem>> mountedFileSystems() = 0;

  // The seam; see RecursiveRemove.
  static MountTable& current();
  static MountTable* replace(MountTable* replacement);
};

}  // namespace pallion
