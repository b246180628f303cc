#include "programs/migration_host/snapshot_item_reader.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "foundation/signal_retry.h"

namespace pallion::host {

namespace {

constexpr size_t kBufferSize = size_t{256} * 1024;
// Limits of lists of names and of values (XATTR_LIST_MAX, XATTR_SIZE_MAX). The kernel allocates
// what it is offered, so the first offer is a small one.
constexpr size_t kShort = 1024;
constexpr size_t kLongest = 65536;

// What a file has by the user's or the system's will, and what only this file system makes up.
bool isKept(std::string_view name) {
  // The migration gives the containers their protection class.
  if (name.starts_with("user.com.orlix.pallion.")) return false;
  for (const std::string_view space : {"user.", "security.", "trusted.", "system.posix_acl_"}) {
    if (name.starts_with(space)) return true;
  }
  return false;
}

template <class Call>
ssize_t offeringMore(const Call& call) {
  const ssize_t size = call(kShort);
  return size < 0 && errno == ERANGE ? call(kLongest) : size;
}

SHA256Digest::Bytes digestOf(const char* bytes, size_t count) {
  SHA256Digest digest;
  digest.update(bytes, count);
  return digest.finish();
}

}  // namespace

SnapshotItemReader::SnapshotItemReader(std::atomic<uint64_t>& bytes)
    : bytes_(bytes),
      buffer_(std::make_unique_for_overwrite<char[]>(kBufferSize)),
      names_(std::make_unique_for_overwrite<char[]>(kLongest)) {}

void SnapshotItemReader::read(const ItemReference& item, SnapshotEntry& entry) {
  // Attributes of what can't be opened are reached by name, for which older kernels know only the
  // working directory.
  int failed = item.name && fchdir(item.descriptor) != 0 ? errno : 0;
  if (failed == 0) failed = readAttributes(item, entry);
  if (failed == 0 && S_ISREG(entry.mode)) failed = readContent(item.descriptor, entry);
  if (failed == 0 && S_ISLNK(entry.mode)) failed = readTarget(item, entry);
  entry.errorNumber = failed;
}

int SnapshotItemReader::readContent(int descriptor, SnapshotEntry& entry) {
  SHA256Digest digest;
  uint64_t total = 0;
  for (;;) {
    const ssize_t count =
        retriedAfterSignals([&] { return ::read(descriptor, buffer_.get(), kBufferSize); });
    if (count < 0) return errno;
    const auto size = static_cast<size_t>(count);
    digest.update(buffer_.get(), size);
    bytes_.fetch_add(size, std::memory_order_relaxed);
    total += size;
    // A regular file answers with less than was asked for at its end only.
    if (size < kBufferSize && (size == 0 || total >= entry.size)) break;
  }
  entry.content = digest.finish();
  return total == entry.size ? 0 : EBUSY;  // somebody changes it
}

int SnapshotItemReader::readTarget(const ItemReference& item, SnapshotEntry& entry) {
  const ssize_t size = readlinkat(item.descriptor, item.name, buffer_.get(), PATH_MAX);
  if (size < 0) return errno;
  entry.target.assign(buffer_.get(), static_cast<size_t>(size));
  return 0;
}

int SnapshotItemReader::readAttributes(const ItemReference& item, SnapshotEntry& entry) {
  const ssize_t size = offeringMore([&](size_t space) {
    return item.name ? llistxattr(item.name, names_.get(), space)
                     : flistxattr(item.descriptor, names_.get(), space);
  });
  if (size < 0) return errno == ENOTSUP ? 0 : errno;
  const char* const end = names_.get() + size;
  for (const char* name = names_.get(); name < end; name += std::strlen(name) + 1) {
    const int failed = isKept(name) ? readAttribute(item, name, entry) : 0;
    if (failed != 0) return failed;
  }
  std::sort(entry.attributes.begin(), entry.attributes.end(),
            [](const auto& left, const auto& right) { return left.name < right.name; });
  return 0;
}

int SnapshotItemReader::readAttribute(const ItemReference& item, std::string_view name,
                                      SnapshotEntry& entry) {
  const ssize_t size = offeringMore([&](size_t space) {
    return item.name ? lgetxattr(item.name, name.data(), buffer_.get(), space)
                     : fgetxattr(item.descriptor, name.data(), buffer_.get(), space);
  });
  if (size < 0) return errno;
  entry.attributes.push_back(
      {std::string(name), digestOf(buffer_.get(), static_cast<size_t>(size))});
  return 0;
}

}  // namespace pallion::host
