#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/unique_descriptor.h"
#include "platform/sha256.h"
#include "programs/migration_host/snapshot_format.h"

namespace pallion::host {

// Writes a snapshot, to standard output or to a file that comes into being when it is whole: until
// then it grows in ".<name>.writing" beside it, which a later snapshot of that name takes over.
class SnapshotWriter {
 public:
  SnapshotWriter() = default;  // to standard output
  SnapshotWriter(const SnapshotWriter&) = delete;
  SnapshotWriter& operator=(const SnapshotWriter&) = delete;
  // Takes away what `finish` did not complete.
  ~SnapshotWriter();

  // To a file; to be called before the root changes. 0 or an errno; ENOTSUP when something else
  // than a regular file is there. Makes nothing yet.
  int open(const std::string& path);
  // Whether the file would be inside that directory; never for the directory "/".
  [[nodiscard]] bool isBelow(const std::string& directory) const;
  // Makes the file that grows. 0 or an errno.
  int begin();

  // Adds lines. A failure is kept for `finish`.
  void write(std::string_view lines);
  // Adds the last line and puts everything on the medium. 0, or the errno of what failed first.
  int finish(const SnapshotTotals& totals);

 private:
  void flush();
  void writeOut(std::string_view bytes);

  UniqueDescriptor directory_;
  UniqueDescriptor file_;
  std::string name_;
  std::string growing_;  // empty once it has its name
  std::string buffer_;
  SHA256Digest digest_;
  int failed_ = 0;
};

// Reads the lines of a snapshot from an open file, which may have several readers.
class SnapshotLines {
 public:
  explicit SnapshotLines(int descriptor) : descriptor_(descriptor) {}

  // The next line with its line feed, valid until the next call; false at the end, at a line that
  // has no end, and on failure.
  bool next(std::string_view& line);
  // After the last line: whether nothing is left.
  [[nodiscard]] bool isAtEnd() const { return error_ == 0 && used_ == buffer_.size(); }
  // The errno of a read that failed, or 0.
  [[nodiscard]] int error() const { return error_; }

 private:
  const int descriptor_;
  off_t position_ = 0;  // of the next read
  std::string buffer_;
  size_t used_ = 0;
  int error_ = 0;
};

// Reads it all: whether it is a snapshot, and whole. Otherwise nothing, with the reason.
std::optional<SnapshotTotals> checkSnapshot(int descriptor, std::string& reason);

}  // namespace pallion::host
