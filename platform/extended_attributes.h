#pragma once

#include <cstddef>
#include <sys/types.h>

namespace pallion {

// Extended attributes under the names that the product gives them. On Linux they stand in the
// "user." namespace, and a missing one is ENODATA (kNoAttribute). A symbolic link at `path` is
// itself the item (and can hold no such attribute: EPERM when set, ENODATA when read).
class ExtendedAttributes {
 public:
  ExtendedAttributes() = default;
  ExtendedAttributes(const ExtendedAttributes&) = delete;
  ExtendedAttributes& operator=(const ExtendedAttributes&) = delete;
  virtual ~ExtendedAttributes() = default;

  // The size of the value, of which at most `size` bytes were stored; -1 with errno set on failure.
  // A value larger than the buffer answers its true size and stores nothing.
  virtual ssize_t get(const char* path, const char* name, void* buffer, size_t size) = 0;
  // Replaces an existing value. 0, or -1 with errno set.
  virtual int set(const char* path, const char* name, const void* value, size_t size) = 0;

  // The seam; see RecursiveRemove.
  static ExtendedAttributes& current();
  static ExtendedAttributes* replace(ExtendedAttributes* replacement);
  static ExtendedAttributes& system();
};

extern const int kNoAttribute;

// Attributes that the installer puts on bundles, in the machine's byte order: a 32-bit integer 1
// marks a placeholder, an unsigned 64-bit integer is the install type.
inline constexpr const char* kPlaceholderAttribute = "com.orlix.palliond.placeholder";
inline constexpr const char* kInstallTypeAttribute = "com.orlix.palliond.installType";

}  // namespace pallion
