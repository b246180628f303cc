#include "foundation/file_contents.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/open_unnoticed.h"
#include "foundation/signal_retry.h"
#include "foundation/unique_descriptor.h"
#include "foundation/volume_order.h"

namespace pallion {

namespace {

// Reads to the end, wherever that is by now: at `expected` bytes unless the file is being changed.
// 0 or the errno.
int readToEnd(int fd, uint64_t expected, uint64_t maximumSize, std::string& bytes) {
  // One byte more than expected: a read that comes back short of it has seen the end.
  bytes.resize(expected + 1);
  size_t size = 0;
  while (true) {
    const ssize_t got =
        retriedAfterSignals([&] { return read(fd, bytes.data() + size, bytes.size() - size); });
    if (got < 0) return errno;
    size += static_cast<size_t>(got);
    if (size > maximumSize) return EFBIG;
    if (got == 0 || size == expected) break;
    if (size == bytes.size()) bytes.resize(std::max<size_t>(2 * size, 4096));
  }
  bytes.resize(size);
  return 0;
}

using Open = int (*)(int directory, const char* path, int flags);

int readRegularFile(Open openFile, const URL& url, FileCache cache, uint64_t maximumSize,
                    std::string& bytes) {
  constexpr int kFlags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY;
  const UniqueDescriptor file(retriedAfterSignals(
      [&] { return openFile(AT_FDCWD, url.fileSystemRepresentation(), kFlags); }));
  if (!file)
    return errno == ENXIO ? EINVAL : errno;  // ENXIO: a socket, or a device that isn't there
  struct stat status {};
  if (fstat(file.get(), &status) != 0) return errno;
  if (S_ISDIR(status.st_mode)) return EISDIR;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  const auto size = static_cast<uint64_t>(status.st_size);
  if (size > maximumSize) return EFBIG;
  const int error = readToEnd(file.get(), size, maximumSize, bytes);
  if (cache == FileCache::kBypass) posix_fadvise(file.get(), 0, 0, POSIX_FADV_DONTNEED);
  return error;
}

std::optional<std::string> readWhole(Open openFile, const URL& url, int* errorNumber,
                                     FileCache cache, uint64_t maximumSize) {
  std::optional<std::string> bytes(std::in_place);
  if (const int error = readRegularFile(openFile, url, cache, maximumSize, *bytes)) {
    if (errorNumber) *errorNumber = error;
    return std::nullopt;
  }
  return bytes;
}

// Has the content written out, and the change of the file's size that comes of it put into the file
// system's log, where the file's name can only come behind it. 0 or an errno.
//
// ext4 and xfs allocate blocks when pages are written out, and end the write-out of a page only
// after they have logged that its block is filled. The log's own flush then covers the device's
// cache. Where changes keep no order it takes a sync.
int orderContent(int fd, bool volumeKeepsOrder) {
  if (!volumeKeepsOrder) return fdatasync(fd) == 0 ? 0 : errno;
  constexpr unsigned kAll =
      SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
  return sync_file_range(fd, 0, 0, kAll) == 0 ? 0 : errno;
}

int writeBytes(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written =
        retriedAfterSignals([&] { return write(fd, bytes.data(), bytes.size()); });
    if (written < 0) return errno;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return 0;
}

int writeAll(int fd, std::string_view bytes, Durability durability) {
  if (const int error = writeBytes(fd, bytes)) return error;
  if (durability == Durability::kSynced && fdatasync(fd) != 0) return errno;
  return durability == Durability::kOrdered ? orderContent(fd, keepsOrder(fd)) : 0;
}

// A name beside the file, the same for every write of it.
std::string temporaryNameFor(const std::string& name) {
  constexpr std::string_view kSuffix = ".writing";
  std::string temporary = ".";
  if (name.size() + kSuffix.size() < NAME_MAX) return temporary.append(name).append(kSuffix);
  uint64_t hash = 0xCBF29CE484222325;  // FNV-1a: the same in every process
  for (const char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
  char digits[sizeof "FFFFFFFFFFFFFFFF"];
  std::snprintf(digits, sizeof digits, "%016llX", static_cast<unsigned long long>(hash));
  return temporary.append(digits).append(kSuffix);
}

// Results of writing besides errno values.
constexpr int kAgain = -1;        // another writer of the same file was in between
constexpr int kNotPossible = -2;  // not on this file system, or not for this process

// Whether that errno of opening an unnamed file comes from a kernel or file system that has none.
bool isUnnamedUnknown(int number) {
  return number == EOPNOTSUPP || number == EISDIR || number == ENOENT || number == EINVAL;
}

class AtomicWrite {
 public:
  AtomicWrite(int directory, std::string name, std::string_view bytes, Durability durability,
              mode_t mode)
      : directory_(directory),
        name_(std::move(name)),
        temporary_(temporaryNameFor(name_)),
        bytes_(bytes),
        durability_(durability),
        mode_(mode) {}

  // 0 or the errno.
  int run();

 private:
  int writeUnnamed();
  int replaceWith(const UniqueDescriptor& file);
  int link(const UniqueDescriptor& file, const std::string& name) const;
  int writeNamed();
  int removeLeftOver();
  int renameOver();
  [[nodiscard]] bool isAtTemporaryName(const UniqueDescriptor& file) const;

  int directory_;
  std::string name_;
  std::string temporary_;
  std::string_view bytes_;
  Durability durability_;
  mode_t mode_;
};

int AtomicWrite::run() {
  // Each round that another writer spoils has put the file of that writer in place.
  constexpr int kRounds = 1000;
  bool unnamed = true;
  for (int round = 0; round < kRounds; ++round) {
    const int result = unnamed ? writeUnnamed() : writeNamed();
    if (result == kNotPossible) {
      unnamed = false;
    } else if (result != kAgain) {
      return result;
    }
  }
  return EAGAIN;
}

int AtomicWrite::writeUnnamed() {
  const UniqueDescriptor file(retriedAfterSignals(
      [&] { return openat(directory_, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode_); }));
  if (!file) return isUnnamedUnknown(errno) ? kNotPossible : errno;
  if (const int error = writeAll(file.get(), bytes_, durability_)) return error;
  const int error = link(file, name_);
  return error == EEXIST ? replaceWith(file) : error;
}

int AtomicWrite::link(const UniqueDescriptor& file, const std::string& name) const {
  if (linkat(file.get(), "", directory_, name.c_str(), AT_EMPTY_PATH) == 0) return 0;
  if (errno != ENOENT && errno != EPERM) return errno;
  // Without CAP_DAC_READ_SEARCH there is the way through /proc.
  char path[sizeof "/proc/self/fd/" + 11];
  std::snprintf(path, sizeof path, "/proc/self/fd/%d", file.get());
  if (linkat(AT_FDCWD, path, directory_, name.c_str(), AT_SYMLINK_FOLLOW) == 0) return 0;
  return errno == EEXIST ? EEXIST : kNotPossible;
}

int AtomicWrite::replaceWith(const UniqueDescriptor& file) {
  int error = link(file, temporary_);
  if (error == EEXIST) {
    // A left-over, or the complete file of another writer, which then finds its own gone.
    if (unlinkat(directory_, temporary_.c_str(), 0) != 0 && errno != ENOENT) return errno;
    error = link(file, temporary_);
  }
  if (error != 0) return error == EEXIST ? kAgain : error;
  error = renameOver();
  if (error != ENOENT) return error;
  // Another writer has renamed this file in place of its own, or has removed it; a file whose last
  // name is gone can't get one again.
  struct stat status {};
  if (fstat(file.get(), &status) != 0) return errno;
  return status.st_nlink > 0 ? 0 : kAgain;
}

int AtomicWrite::renameOver() {
  if (renameat(directory_, temporary_.c_str(), directory_, name_.c_str()) == 0) return 0;
  const int error = errno;
  unlinkat(directory_, temporary_.c_str(), 0);
  return error;
}

bool AtomicWrite::isAtTemporaryName(const UniqueDescriptor& file) const {
  struct stat own {};
  struct stat named {};
  return fstat(file.get(), &own) == 0 &&
         fstatat(directory_, temporary_.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         own.st_dev == named.st_dev && own.st_ino == named.st_ino;
}

// Here the temporary name stands for an incomplete file. Whoever holds the lock of the file that it
// names, and nobody else, writes that file and changes what is at the name.
int AtomicWrite::writeNamed() {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  const UniqueDescriptor file(
      retriedAfterSignals([&] { return openat(directory_, temporary_.c_str(), kFlags, mode_); }));
  if (!file) return errno == EEXIST ? removeLeftOver() : errno;
  retriedAfterSignals([&] { return flock(file.get(), LOCK_EX); });
  if (!isAtTemporaryName(file)) return kAgain;
  const int error = writeAll(file.get(), bytes_, durability_);
  if (error == 0) return renameOver();
  unlinkat(directory_, temporary_.c_str(), 0);
  return error;
}

int AtomicWrite::removeLeftOver() {
  constexpr int kFlags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY;
  const UniqueDescriptor file(
      retriedAfterSignals([&] { return openat(directory_, temporary_.c_str(), kFlags); }));
  if (!file && errno == ENOENT) return kAgain;  // its writer has come to an end
  if (file) {
    // Waits for a writer that is at work.
    retriedAfterSignals([&] { return flock(file.get(), LOCK_EX); });
    if (!isAtTemporaryName(file)) return kAgain;
  }
  return unlinkat(directory_, temporary_.c_str(), 0) == 0 || errno == ENOENT ? kAgain : errno;
}

// A file where none stands, which needs no descriptor of its directory. EEXIST when one does,
// kNotPossible as in AtomicWrite, or another errno.
int writeNewFile(const char* directory, const char* path, std::string_view bytes,
                 Durability durability, mode_t mode) {
  const UniqueDescriptor file(
      retriedAfterSignals([&] { return open(directory, O_TMPFILE | O_WRONLY | O_CLOEXEC, mode); }));
  if (!file) return isUnnamedUnknown(errno) ? kNotPossible : errno;
  if (const int error = writeAll(file.get(), bytes, durability)) return error;
  if (linkat(file.get(), "", AT_FDCWD, path, AT_EMPTY_PATH) == 0) return 0;
  return errno == ENOENT || errno == EPERM ? kNotPossible : errno;
}

}  // namespace

std::optional<std::string> readFile(const URL& url, int* errorNumber, FileCache cache,
                                    uint64_t maximumSize) {
  return readWhole(openUnnoticed, url, errorNumber, cache, maximumSize);
}

std::optional<std::string> readFileWithoutLinks(const URL& url, int* errorNumber,
                                                uint64_t maximumSize) {
  return readWhole(openUnnoticedWithoutLinks, url, errorNumber, FileCache::kUse, maximumSize);
}

int writeFileAtomically(const URL& url, std::string_view bytes, Durability durability,
                        mode_t mode) {
  if (*url.fileSystemRepresentation() == '\0') return ENOENT;
  const std::string name = url.lastPathComponent();
  if (name == "/") return EISDIR;
  const URL parent = url.deletingLastPathComponent();
  const int result = writeNewFile(parent.fileSystemRepresentation(), url.fileSystemRepresentation(),
                                  bytes, durability, mode);
  if (result != EEXIST && result != kNotPossible) return result;
  constexpr int kFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  const UniqueDescriptor directory(
      retriedAfterSignals([&] { return open(parent.fileSystemRepresentation(), kFlags); }));
  if (!directory) return errno;
  return writeFileAtomicallyAt(directory.get(), name, bytes, durability, mode);
}

int writeFileInOwnDirectory(const URL& url, std::string_view bytes, VolumeOrder& volume,
                            mode_t mode) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  const char* const path = url.fileSystemRepresentation();
  const UniqueDescriptor file(retriedAfterSignals([&] { return open(path, kFlags, mode); }));
  if (!file) {
    return errno == EEXIST ? writeFileAtomically(url, bytes, Durability::kOrdered, mode) : errno;
  }
  int error = writeBytes(file.get(), bytes);
  if (error == 0) error = orderContent(file.get(), volume.isKept(file.get()));
  if (error != 0) unlink(path);
  return error;
}

int writeFileAtomicallyAt(int directory, const std::string& name, std::string_view bytes,
                          Durability durability, mode_t mode) {
  return AtomicWrite(directory, name, bytes, durability, mode).run();
}

bool isReadFailure(int errorNumber) {
  switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
    case ELOOP:  // a symbolic link, which is not followed
    case EISDIR:
    case EINVAL:  // no regular file
    case ENXIO:   // a socket
    case EFBIG:
    case EILSEQ:
      return false;
    default:
      return true;
  }
}

}  // namespace pallion
