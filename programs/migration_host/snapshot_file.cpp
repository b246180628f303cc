#include "programs/migration_host/snapshot_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/signal_retry.h"

namespace pallion::host {

namespace {

constexpr size_t kBufferSize = size_t{256} * 1024;
// Longer than any line can be: a path, and 64 KiB of names of attributes with their digests.
constexpr size_t kLongestLine = size_t{16} << 20;

bool isSame(const struct stat& left, const struct stat& right) {
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

}  // namespace

SnapshotWriter::~SnapshotWriter() {
  if (!growing_.empty()) unlinkat(directory_.get(), growing_.c_str(), 0);
}

int SnapshotWriter::open(const std::string& path) {
  const size_t slash = path.rfind('/');
  name_ = slash == std::string::npos ? path : path.substr(slash + 1);
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  if (name_.empty() || name_ == "." || name_ == "..") return EISDIR;
  directory_.reset(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory_) return errno;
  struct stat status {};
  if (fstatat(directory_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? 0 : errno;
  }
  if (S_ISREG(status.st_mode)) return 0;
  return S_ISDIR(status.st_mode) ? EISDIR : ENOTSUP;
}

int SnapshotWriter::begin() {
  if (!directory_) return 0;
  const std::string growing = "." + name_ + ".writing";
  // Names of the user's files are in it. A FIFO of that name is not waited for.
  file_.reset(openat(directory_.get(), growing.c_str(),
                     O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
  struct stat status {};
  if (!file_ || fstat(file_.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return ENOTSUP;
  growing_ = growing;
  return 0;
}

bool SnapshotWriter::isBelow(const std::string& directory) const {
  struct stat wanted {};
  struct stat top {};
  struct stat here {};
  if (!directory_ || stat(directory.c_str(), &wanted) != 0 || stat("/", &top) != 0 ||
      fstat(directory_.get(), &here) != 0 || isSame(wanted, top)) {
    return false;
  }
  UniqueDescriptor level(openat(directory_.get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  while (level) {
    if (isSame(here, wanted)) return true;
    const struct stat below = here;
    level.reset(openat(level.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    // At the top ".." leads nowhere else.
    if (!level || fstat(level.get(), &here) != 0 || isSame(below, here)) return false;
  }
  return false;
}

void SnapshotWriter::write(std::string_view lines) {
  buffer_ += lines;
  if (buffer_.size() >= kBufferSize) flush();
}

void SnapshotWriter::flush() {
  digest_.update(buffer_.data(), buffer_.size());
  writeOut(buffer_);
  buffer_.clear();
}

void SnapshotWriter::writeOut(std::string_view bytes) {
  const int descriptor = file_ ? file_.get() : STDOUT_FILENO;
  while (failed_ == 0 && !bytes.empty()) {
    const ssize_t count =
        retriedAfterSignals([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
    if (count < 0) {
      failed_ = errno;
    } else {
      bytes.remove_prefix(static_cast<size_t>(count));
    }
  }
}

int SnapshotWriter::finish(const SnapshotTotals& totals) {
  flush();
  writeOut(totalsLine(totals, digest_.finish()));
  if (failed_ != 0 || !file_) return failed_;
  if (fsync(file_.get()) != 0) return errno;
  if (renameat(directory_.get(), growing_.c_str(), directory_.get(), name_.c_str()) != 0) {
    return errno;
  }
  growing_.clear();
  return fsync(directory_.get()) == 0 ? 0 : errno;
}

bool SnapshotLines::next(std::string_view& line) {
  for (size_t searched = used_;;) {
    const size_t end = buffer_.find('\n', searched);
    if (end != std::string::npos) {
      line = std::string_view(buffer_).substr(used_, end + 1 - used_);
      used_ = end + 1;
      return true;
    }
    buffer_.erase(0, used_);
    used_ = 0;
    searched = buffer_.size();
    if (searched > kLongestLine) return false;
    buffer_.resize(searched + kBufferSize);
    const ssize_t count = retriedAfterSignals(
        [&] { return pread(descriptor_, &buffer_[searched], kBufferSize, position_); });
    if (count < 0) error_ = errno;
    buffer_.resize(searched + static_cast<size_t>(count > 0 ? count : 0));
    if (count <= 0) return false;
    position_ += count;
  }
}

std::optional<SnapshotTotals> checkSnapshot(int descriptor, std::string& reason) {
  SnapshotLines lines(descriptor);
  SHA256Digest digest;
  std::string_view line;
  bool isFirst = true;
  while (lines.next(line)) {
    if (isFirst && !isSupportedHeader(line)) {
      reason = lineType(line) == LineType::kHeader ? "is a snapshot of another version"
                                                   : "is no snapshot";
      return std::nullopt;
    }
    isFirst = false;
    if (lineType(line) != LineType::kTotals) {
      digest.update(line.data(), line.size());
      continue;
    }
    const std::optional<TotalsLine> totals = parseTotals(line);
    if (!totals || totals->digest != hexText(digest.finish()) || lines.next(line) ||
        !lines.isAtEnd()) {
      reason = "is damaged";
      return std::nullopt;
    }
    return totals->totals;
  }
  if (lines.error() != 0) {
    reason = std::string("can't be read: ") + std::strerror(lines.error());
  } else {
    reason = isFirst ? "is no snapshot" : "is truncated";
  }
  return std::nullopt;
}

}  // namespace pallion::host
