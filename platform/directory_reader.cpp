#include "platform/directory_reader.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace pallion {

namespace {

constexpr size_t kSmallestBuffer = size_t{32} * 1024;
constexpr size_t kLargestBuffer = size_t{1024} * 1024;
// More than the largest entry takes (19 bytes and a name of 255), so a read that leaves this much
// was not cut short by the buffer.
constexpr size_t kRoomToSpare = 512;

// The kernel's record (struct linux_dirent64), which is laid out like this one with 64-bit offsets.
using Record = struct dirent64;

}  // namespace

DirectoryReader::DirectoryReader(DirectoryReader&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      error_(other.error_),
      buffer_(std::move(other.buffer_)),
      capacity_(std::exchange(other.capacity_, 0)),
      filled_(std::exchange(other.filled_, 0)),
      used_(std::exchange(other.used_, 0)) {}

DirectoryReader& DirectoryReader::operator=(DirectoryReader&& other) noexcept {
  if (this == &other) return *this;
  close();
  descriptor_ = std::exchange(other.descriptor_, -1);
  error_ = other.error_;
  buffer_ = std::move(other.buffer_);
  capacity_ = std::exchange(other.capacity_, 0);
  filled_ = std::exchange(other.filled_, 0);
  used_ = std::exchange(other.used_, 0);
  return *this;
}

void DirectoryReader::close() {
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = -1;
  buffer_.reset();
  capacity_ = filled_ = used_ = 0;
}

bool DirectoryReader::mayBeAtEnd() const {
  return used_ == filled_ && filled_ > 0 && capacity_ - filled_ >= kRoomToSpare;
}

bool DirectoryReader::refill() {
  const bool wasFull = capacity_ > 0 && filled_ > 0 && capacity_ - filled_ < kRoomToSpare;
  if (capacity_ == 0 || (wasFull && capacity_ < kLargestBuffer)) {
    capacity_ = capacity_ == 0 ? kSmallestBuffer : capacity_ * 2;
    buffer_.reset();  // before the new one is taken
    buffer_ = std::make_unique_for_overwrite<std::byte[]>(capacity_);
  }
  used_ = filled_ = 0;
  const long count = syscall(SYS_getdents64, descriptor_, buffer_.get(), capacity_);
  if (count < 0) {
    // A directory that was removed under its descriptor answers ENOENT: it has no entries.
    error_ = errno == ENOENT ? 0 : errno;
    return false;
  }
  filled_ = static_cast<size_t>(count);
  return filled_ > 0;
}

bool DirectoryReader::next(Entry& entry) {
  for (;;) {
    if (used_ == filled_ && !refill()) return false;
    const auto* record = reinterpret_cast<const Record*>(buffer_.get() + used_);
    used_ += record->d_reclen;
    // Not through the array member: the kernel's record ends with the name, before the array's 256
    // bytes do.
    const char* name = reinterpret_cast<const char*>(record) + offsetof(Record, d_name);
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
    entry = {name, record->d_type, record->d_ino, record->d_off};
    return true;
  }
}

bool DirectoryReader::seek(off_t position) {
  used_ = filled_ = 0;
  error_ = 0;
  return lseek(descriptor_, position, SEEK_SET) >= 0;
}

}  // namespace pallion
