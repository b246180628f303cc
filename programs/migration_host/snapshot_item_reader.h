#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <sys/types.h>

#include "platform/item_status.h"
#include "programs/migration_host/snapshot_format.h"

namespace pallion::host {

// Reads content and extended attributes of items into their entries. Belongs to one thread, and
// changes that thread's working directory, which must be its own (CLONE_FS).
class SnapshotItemReader {
 public:
  // Counts the bytes that were read in `bytes`, which outlives this object.
  explicit SnapshotItemReader(std::atomic<uint64_t>& bytes);

  // `item` is an open file or directory, or the name of something else in an open directory.
  // `entry` has all that the status tells.
  void read(const ItemReference& item, SnapshotEntry& entry);

 private:
  int readContent(int descriptor, SnapshotEntry& entry);
  int readTarget(const ItemReference& item, SnapshotEntry& entry);
  int readAttributes(const ItemReference& item, SnapshotEntry& entry);
  int readAttribute(const ItemReference& item, std::string_view name, SnapshotEntry& entry);

  std::atomic<uint64_t>& bytes_;
  std::unique_ptr<char[]> buffer_;
  std::unique_ptr<char[]> names_;
};

}  // namespace pallion::host
