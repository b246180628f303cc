#pragma once

#include <cstddef>
#include <memory>
#include <sys/types.h>

namespace pallion {

// Reads the entries of one open directory straight from the kernel (getdents64), without "." and
// "..", in the order of the file system. Owns the descriptor, which also serves calls relative to
// the directory. The buffer comes with the first read and grows with the directory, from 32 KiB to
// 1 MiB; no entry costs an allocation. One thread at a time.
class DirectoryReader {
 public:
  struct Entry {
    const char* name = nullptr;  // bytes, valid until the next call of `next`, `seek` or `close`
    unsigned char type = 0;  // DT_DIR and its like; DT_UNKNOWN where the file system doesn't tell
    ino_t inode = 0;
    off_t position = 0;  // where the entry after this one begins, for `seek`
  };

  DirectoryReader() = default;  // closed
  explicit DirectoryReader(int descriptor) : descriptor_(descriptor) {}
  DirectoryReader(DirectoryReader&& other) noexcept;
  DirectoryReader& operator=(DirectoryReader&& other) noexcept;
  ~DirectoryReader() { close(); }

  [[nodiscard]] bool isOpen() const { return descriptor_ >= 0; }
  [[nodiscard]] int descriptor() const { return descriptor_; }
  // Gives descriptor and buffer back.
  void close();

  // The next entry; false at the end and on failure, which `error` tells apart.
  bool next(Entry& entry);
  // The errno of the read that failed; 0 when there was none.
  [[nodiscard]] int error() const { return error_; }
  // True when all that was read has been handed out and the last read left the buffer with room to
  // spare, so that another one would most likely find nothing. File systems may answer with less
  // than they have: not a proof.
  [[nodiscard]] bool mayBeAtEnd() const;

  // Goes on at an entry's `position`, or at the beginning (0). Positions stay valid in a later
  // descriptor of the same directory on the usual disk file systems, but not on all (overlays,
  // older tmpfs) once entries were added or removed. False with errno set on failure.
  bool seek(off_t position);

 private:
  bool refill();

  int descriptor_ = -1;
  int error_ = 0;
  std::unique_ptr<std::byte[]> buffer_;
  size_t capacity_ = 0;
  size_t filled_ = 0;  // bytes of the last read
  size_t used_ = 0;    // bytes of it that were handed out
};

}  // namespace pallion
