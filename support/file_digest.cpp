#include "support/file_digest.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/unique_descriptor.h"
#include "platform/product_log.h"
#include "platform/sha256.h"

namespace pallion {

namespace {

constexpr off_t kChunkSize = 65536;

struct FreeMemory {
  void operator()(char* memory) const { std::free(memory); }
};

// Puts errno back at the end of its scope, whatever logging or closing did to it.
class KeptErrno {
 public:
  KeptErrno() = default;
  KeptErrno(const KeptErrno&) = delete;
  KeptErrno& operator=(const KeptErrno&) = delete;
  ~KeptErrno() { errno = number_; }
  [[nodiscard]] const char* text() const { return std::strerror(number_); }

 private:
  int number_ = errno;
};

// Hands the file to `chunk` piece by piece; true when all of it (as long as it was at the start)
// was handed over. errno is that of the failure that was logged.
template <class Chunk>
bool _ReadFile(const char* path, const Chunk& chunk) {
  constexpr char kFunction[] = "_ReadFile";
  const UniqueDescriptor file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (file.get() < 0) {
    const KeptErrno kept;
    LogWrite(kLogError, kFunction, "failed to open %s : %s", path, kept.text());
    return false;
  }
  struct stat status {};
  if (fstat(file.get(), &status) != 0) {
    const KeptErrno kept;
    LogWrite(kLogError, kFunction, "failed to stat %s : %s", path, kept.text());
    return false;
  }
  if (!S_ISREG(status.st_mode)) {  // its size says nothing, so it might pass for an empty file
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    const KeptErrno kept;
    LogWrite(kLogError, kFunction, "read failed for %s : %s", path, kept.text());
    return false;
  }
  const off_t bufferSize = std::min(status.st_size, kChunkSize);
  const std::unique_ptr<char, FreeMemory> buffer(
      static_cast<char*>(std::malloc(static_cast<size_t>(bufferSize))));
  if (!buffer && bufferSize != 0) {
    const KeptErrno kept;
    LogWrite(kLogError, kFunction, "malloc failed for %ld bytes: %s", long{bufferSize},
             kept.text());
    return false;
  }
  for (off_t offset = 0; offset < status.st_size;) {
    const size_t wanted = static_cast<size_t>(std::min(bufferSize, status.st_size - offset));
    const ssize_t count = read(file.get(), buffer.get(), wanted);
    if (count < 0) {
      const KeptErrno kept;
      LogWrite(kLogError, kFunction, "read failed for %s : %s", path, kept.text());
      return false;
    }
    if (count == 0) {
      errno = EIO;  // the end came too early, which the system has no number for
      const KeptErrno kept;
      LogWrite(kLogError, kFunction, "read failed for %s, got %lld bytes", path,
               static_cast<long long>(count));
      return false;
    }
    if (!chunk(buffer.get(), static_cast<size_t>(count))) return false;
    offset += count;
  }
  return true;
}

}  // namespace

std::optional<std::string> PLCreateSHA256Digest(const URL& file) {
  SHA256Digest digest;
  const bool whole =
      _ReadFile(file.fileSystemRepresentation(), [&](const char* bytes, size_t count) {
        digest.update(bytes, count);
        return true;
      });
  const int number = errno;
  const SHA256Digest::Bytes bytes = digest.finish();
  if (!whole) {
    LogWrite(kLogError, "PLCreateSHA256Digest", "Failed to read %@ : %s", file,
             std::strerror(number));
    return std::nullopt;
  }
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text(bytes.size() * 2, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = kDigits[bytes[i] >> 4];
    text[2 * i + 1] = kDigits[bytes[i] & 15];
  }
  return text;
}

}  // namespace pallion
