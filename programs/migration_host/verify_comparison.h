#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "programs/migration_host/snapshot_file.h"
#include "programs/migration_host/snapshot_format.h"
#include "programs/migration_host/snapshot_walk.h"

namespace pallion::host {

struct Difference {
  std::string path;      // of the item or what is in it, in the old layout
  std::string what;      // "missing", "content", "mode", "attribute user.x", ...
  std::string expected;  // what the snapshot has; empty for none
  std::string found;
};

// Holds what is found, item by item and in order, against the lines of a snapshot.
class SnapshotComparison {
 public:
  using Report = std::function<void(const UserDataItem& item, const Difference& difference)>;

  SnapshotComparison(int snapshot, Report report) : lines_(snapshot), report_(std::move(report)) {}

  // False when the snapshot is not what it was a moment ago.
  bool take(const SnapshotWalk::Found& found);
  // After the last one.
  bool finish();

  // Entries that are as they were, and those that the snapshot does not know.
  [[nodiscard]] uint64_t equal() const { return equal_; }
  [[nodiscard]] uint64_t extra() const { return extra_; }

 private:
  bool beginItem();
  bool advance();
  bool passUpTo(const std::string& path);
  bool passRest();
  bool takeEntry(const SnapshotEntry& entry);
  void takeProblem(const SnapshotEntry& problem);
  void reportMissing();
  void compare(const SnapshotEntry& expected, const SnapshotEntry& found);
  void report(const std::string& path, Difference difference);
  [[nodiscard]] bool isBelowProblem(const std::string& path) const;
  const SnapshotEntry* parsed();

  SnapshotLines lines_;
  const Report report_;
  UserDataItem item_;
  // The next line, as far as it was read: an entry of the item, the next item, or the last line.
  std::string line_;
  LineType type_ = LineType::kOther;
  std::optional<SnapshotEntry> expected_;  // of the line, once it was needed
  std::string foundLine_;
  std::optional<std::string> problem_;  // nothing is known of what is at this path and below
  uint64_t equal_ = 0;
  uint64_t extra_ = 0;
};

}  // namespace pallion::host
