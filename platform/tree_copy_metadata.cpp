#include "platform/tree_copy_metadata.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace pallion {

namespace {

// Numbers that the C library's headers don't have yet; the same on every architecture since 5.1
// unified them (but Alpha). Linux 6.13.
constexpr long kSetxattrat = 463;
constexpr long kGetxattrat = 464;
constexpr long kListxattrat = 465;
constexpr long kRemovexattrat = 466;

// struct xattr_args of the kernel.
struct AttributeArguments {
  alignas(8) uint64_t value;
  uint32_t size;
  uint32_t flags;
};

constexpr const char* kAccessList = "system.posix_acl_access";
constexpr const char* kDefaultList = "system.posix_acl_default";

// The kernel allocates what it is offered, so the first offer is a small one; the limit of lists
// and of values comes second.
constexpr size_t kShort = 1024;
constexpr size_t kLongest = 65536;

AttributeArguments argumentsFor(const void* value, size_t size) {
  return {reinterpret_cast<uintptr_t>(value), static_cast<uint32_t>(size), 0};
}

int setTimes(const ItemReference& item, const ItemStatus& status) {
  const std::array<timespec, 2> times{status.accessed, status.modified};
  return item.name ? utimensat(item.descriptor, item.name, times.data(), AT_SYMLINK_NOFOLLOW)
                   : futimens(item.descriptor, times.data());
}

}  // namespace

bool MetadataCopy::copy(const ItemReference& source, const ItemStatus& status,
                        const ItemReference& destination, const CreatedAs& created) {
  const bool ownerDiffers = status.owner != created.owner || status.group != created.group;
  if (ownerDiffers && setItemOwner(destination, status.owner, status.group) != 0) return false;
  // After the owner, whose change takes the set-id bits away.
  const mode_t mode = status.mode & 07777U;
  const bool hasMode = !S_ISLNK(status.mode);
  if (hasMode && mode != created.mode && setItemMode(destination, mode) != 0) return false;
  // After the owner, whose change takes file capabilities away, and after the mode, whose change
  // would rewrite an ACL's mask.
  const auto attributes = [&] { return copyAttributes(source, destination); };
  if (!(source.name ? reachingNames(attributes) : attributes())) return false;
  return setTimes(destination, status) == 0;
}

bool MetadataCopy::dropInheritedAccess(const ItemReference& item, bool isDirectory) {
  const auto work = [&] {
    // A directory that inherited a list for itself has one for what is made in it as well.
    const bool inherited = !isDirectory || (get(item, kDefaultList, nullptr, 0) >= 0 &&
                                            remove(item, kDefaultList) == 0);
    if (inherited && remove(item, kAccessList) == 0) return true;
    return errno == ENODATA || errno == ENOTSUP;
  };
  return item.name ? reachingNames(work) : work();
}

bool MetadataCopy::copyAttributes(const ItemReference& source, const ItemReference& destination) {
  std::array<char, kShort> shortList{};
  const char* names = shortList.data();
  ssize_t size = list(source, shortList.data(), shortList.size());
  if (size < 0 && errno == ERANGE) {
    if (!longList_) longList_ = std::make_unique_for_overwrite<char[]>(kLongest);
    size = list(source, longList_.get(), kLongest);
    names = longList_.get();
  }
  if (size < 0) return errno == ENOTSUP;
  const char* const end = names + size;
  for (const char* name = names; name < end; name += std::strlen(name) + 1) {
    if (!copyAttribute(source, destination, name)) return false;
  }
  return true;
}

bool MetadataCopy::copyAttribute(const ItemReference& source, const ItemReference& destination,
                                 const char* name) {
  std::array<char, kShort> shortValue;
  const char* value = shortValue.data();
  ssize_t size = get(source, name, shortValue.data(), shortValue.size());
  if (size < 0 && errno == ERANGE) {
    if (!longValue_) longValue_ = std::make_unique_for_overwrite<char[]>(kLongest);
    size = get(source, name, longValue_.get(), kLongest);
    value = longValue_.get();
  }
  return size >= 0 && set(destination, name, value, static_cast<size_t>(size)) == 0;
}

bool MetadataCopy::reachingNames(const std::function<bool()>& work) {
  if (!lacksNameCalls_) {
    if (work()) return true;
    if (errno != ENOSYS) return false;
    lacksNameCalls_ = true;
  }
  // The older calls take only paths, and a chroot may have no /proc to spell a descriptor with. A
  // working directory does it; the process's belongs to others, a thread can have its own.
  struct Errand {
    MetadataCopy& copy;
    const std::function<bool()>& work;
    int error = 0;
  } errand{*this, work};
  pthread_t thread{};
  const int failed = pthread_create(
      &thread, nullptr,
      [](void* argument) -> void* {
        auto& own = *static_cast<Errand*>(argument);
        own.copy.ownsWorkingDirectory_ = true;
        if (unshare(CLONE_FS) != 0 || !own.work()) own.error = errno;
        own.copy.ownsWorkingDirectory_ = false;
        return nullptr;
      },
      &errand);
  if (failed == 0) pthread_join(thread, nullptr);
  errno = failed != 0 ? failed : errand.error;
  return errno == 0;
}

ssize_t MetadataCopy::list(const ItemReference& item, char* names, size_t size) const {
  if (!item.name) return flistxattr(item.descriptor, names, size);
  if (!ownsWorkingDirectory_) {
    return syscall(kListxattrat, item.descriptor, item.name, AT_SYMLINK_NOFOLLOW, names, size);
  }
  return fchdir(item.descriptor) == 0 ? llistxattr(item.name, names, size) : -1;
}

ssize_t MetadataCopy::get(const ItemReference& item, const char* name, void* value,
                          size_t size) const {
  if (!item.name) return fgetxattr(item.descriptor, name, value, size);
  if (!ownsWorkingDirectory_) {
    AttributeArguments arguments = argumentsFor(value, size);
    return syscall(kGetxattrat, item.descriptor, item.name, AT_SYMLINK_NOFOLLOW, name, &arguments,
                   sizeof arguments);
  }
  return fchdir(item.descriptor) == 0 ? lgetxattr(item.name, name, value, size) : -1;
}

int MetadataCopy::set(const ItemReference& item, const char* name, const void* value,
                      size_t size) const {
  if (!item.name) return fsetxattr(item.descriptor, name, value, size, 0);
  if (!ownsWorkingDirectory_) {
    const AttributeArguments arguments = argumentsFor(value, size);
    return static_cast<int>(syscall(kSetxattrat, item.descriptor, item.name, AT_SYMLINK_NOFOLLOW,
                                    name, &arguments, sizeof arguments));
  }
  return fchdir(item.descriptor) == 0 ? lsetxattr(item.name, name, value, size, 0) : -1;
}

int MetadataCopy::remove(const ItemReference& item, const char* name) const {
  if (!item.name) return fremovexattr(item.descriptor, name);
  if (!ownsWorkingDirectory_) {
    return static_cast<int>(
        syscall(kRemovexattrat, item.descriptor, item.name, AT_SYMLINK_NOFOLLOW, name));
  }
  return fchdir(item.descriptor) == 0 ? lremovexattr(item.name, name) : -1;
}

}  // namespace pallion
