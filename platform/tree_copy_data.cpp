#include "platform/tree_copy_data.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "foundation/signal_retry.h"

namespace pallion {

namespace {

constexpr size_t kBufferSize = size_t{256} * 1024;
// A file, or a piece between holes, up to here takes one read and one write. Where nothing is
// really offloaded, as on tmpfs and ext4, that costs less than asking the kernel to copy.
constexpr off_t kLargestInOnePiece = off_t{64} * 1024;
// One call can't be interrupted for much longer than this takes.
constexpr off_t kLargestOffload = off_t{1} << 30;

bool fail(int number) {
  errno = number;
  return false;
}

// The pair of volumes or the kernel can't do it at all, whatever the file.
bool isUnsupported(int number) {
  return number == EOPNOTSUPP || number == EXDEV || number == ENOSYS || number == ENOTTY ||
         number == EINVAL;
}

bool writeAll(int file, const char* data, size_t size, off_t offset) {
  while (size > 0) {
    const ssize_t written = retriedAfterSignals([&] { return pwrite(file, data, size, offset); });
    if (written < 0) return false;
    data += written;
    size -= static_cast<size_t>(written);
    offset += written;
  }
  return true;
}

// Moves `begin` to the next data at or after it, and stores its end; both are `end` when only a
// hole is left.
bool findData(int file, off_t& begin, off_t& dataEnd, off_t end) {
  dataEnd = end;
  const off_t data = lseek(file, begin, SEEK_DATA);
  if (data < 0) {
    if (errno == EINVAL) return true;  // the file system can't tell: all is data
    begin = end;
    return errno == ENXIO;
  }
  begin = std::min(data, end);
  const off_t hole = lseek(file, data, SEEK_HOLE);
  if (hole < 0) return errno == ENXIO ? fail(EBUSY) : false;
  dataEnd = std::min(hole, end);
  return true;
}

}  // namespace

// Beginning with a page: the kernel's copies from page to page are faster than across.
struct alignas(4096) DataCopy::Buffer {
  char bytes[kBufferSize];
};

DataCopy::DataCopy(std::atomic<uint64_t>& bytesCopied) : bytesCopied_(bytesCopied) {}
DataCopy::~DataCopy() = default;

bool DataCopy::copy(int source, const ItemStatus& status, int destination) {
  if (status.size > 0 && clone(source, destination)) {
    count(status.size);
    return true;
  }
  if (status.size <= kLargestInOnePiece && status.allocated >= status.size) {
    return copyWhole(source, static_cast<size_t>(status.size), destination);
  }
  return copyPieces(source, status, destination);
}

// Any failure leaves the other ways, which will tell what is wrong with the file.
bool DataCopy::clone(int source, int destination) {
  if (!abilities.clone) return false;
  if (ioctl(destination, FICLONE, source) == 0) return true;
  // A file may be refused (EINVAL) for itself, on volumes that can.
  abilities.clone = !isUnsupported(errno) || errno == EINVAL;
  return false;
}

bool DataCopy::copyWhole(int source, size_t size, int destination) {
  size_t filled = 0;
  do {
    // Always asks for more than is expected: getting exactly that is the end of the file.
    const ssize_t got =
        retriedAfterSignals([&] { return read(source, buffer() + filled, kBufferSize - filled); });
    if (got < 0) return false;
    if (got == 0) break;
    filled += static_cast<size_t>(got);
  } while (filled < size);
  if (filled != size) return fail(EBUSY);
  if (!writeAll(destination, buffer(), size, 0)) return false;
  count(static_cast<off_t>(size));
  return true;
}

bool DataCopy::copyPieces(int source, const ItemStatus& status, int destination) {
  const bool mayHaveHoles = status.allocated < status.size;
  // Before the content: writing into a hole costs less than making the file longer each time.
  if (mayHaveHoles && ftruncate(destination, status.size) != 0) return false;
  off_t begin = 0;
  while (begin < status.size) {
    off_t end = status.size;
    if (mayHaveHoles && !findData(source, begin, end, status.size)) return false;
    if (begin == status.size) break;
    if (!copyRange(source, destination, begin, end)) return false;
    begin = end;
  }
  ItemStatus now;
  if (!readStatus({source}, now)) return false;
  return sameContent(status, now) || fail(EBUSY);
}

bool DataCopy::copyRange(int source, int destination, off_t begin, off_t end) {
  if (end - begin > kLargestInOnePiece) begin = offload(source, destination, begin, end);
  if (begin < 0) return false;
  while (begin < end) {
    const size_t wanted = std::min(kBufferSize, static_cast<size_t>(end - begin));
    const ssize_t got = retriedAfterSignals([&] { return pread(source, buffer(), wanted, begin); });
    if (got < 0) return false;
    if (got == 0) return fail(EBUSY);
    if (!writeAll(destination, buffer(), static_cast<size_t>(got), begin)) return false;
    begin += got;
    count(got);
  }
  return true;
}

off_t DataCopy::offload(int source, int destination, off_t begin, off_t end) {
  // Twice the pages are read ahead of the copying, also inside the kernel.
  if (abilities.offload) posix_fadvise(source, 0, 0, POSIX_FADV_SEQUENTIAL);
  while (abilities.offload && begin < end) {
    off_t from = begin;
    off_t to = begin;
    const auto wanted = static_cast<size_t>(std::min(end - begin, kLargestOffload));
    const ssize_t done = retriedAfterSignals(
        [&] { return copy_file_range(source, &from, destination, &to, wanted, 0); });
    // Nothing copied need not be the end of the file: some file systems just don't.
    if (done == 0) break;
    if (done > 0) {
      begin += done;
      count(done);
    } else if (isUnsupported(errno)) {
      abilities.offload = false;
    } else {
      return -1;
    }
  }
  return begin;
}

char* DataCopy::buffer() {
  if (!buffer_) buffer_ = std::make_unique_for_overwrite<Buffer>();
  return buffer_->bytes;
}

}  // namespace pallion
