#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/types.h>

#include "platform/tree_copy_metadata.h"

namespace pallion {

// What two volumes can do together, until they answer that they can't.
struct CopyAbilities {
  bool clone = true;
  bool offload = true;
};

// Copies the content of regular files from one volume to another (or the same), in the cheapest way
// that the two can do, and remembers what they can't. One thread at a time.
class DataCopy {
 public:
  // Adds the bytes of content that it writes to `bytesCopied`, which outlives this object.
  explicit DataCopy(std::atomic<uint64_t>& bytesCopied);
  DataCopy(const DataCopy&) = delete;
  DataCopy& operator=(const DataCopy&) = delete;
  ~DataCopy();
  // What is known of the volumes before the first copy, and after the last.
  CopyAbilities abilities;
  // From `source`, whose `status` was read when it was opened, to the empty file `destination`.
  // Holes stay holes. False with errno set; EBUSY when the source was changed meanwhile.
  bool copy(int source, const ItemStatus& status, int destination);

 private:
  bool clone(int source, int destination);
  bool copyWhole(int source, size_t size, int destination);
  bool copyPieces(int source, const ItemStatus& status, int destination);
  bool copyRange(int source, int destination, off_t begin, off_t end);
  // Copies what the kernel can without showing it to us; answers where it stopped, -1 on failure.
  off_t offload(int source, int destination, off_t begin, off_t end);
  char* buffer();

  void count(off_t bytes) {
    bytesCopied_.fetch_add(static_cast<uint64_t>(bytes), std::memory_order_relaxed);
  }

  std::atomic<uint64_t>& bytesCopied_;
  struct Buffer;
  std::unique_ptr<Buffer> buffer_;
};

}  // namespace pallion
