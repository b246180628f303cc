#include "platform/extended_attributes.h"

#include <cerrno>
#include <string>
#include <sys/xattr.h>

#include "platform/replaceable.h"

namespace pallion {

namespace {

std::string systemName(const char* name) { return std::string("user.") + name; }

class SystemAttributes : public ExtendedAttributes {
 public:
  ssize_t get(const char* path, const char* name, void* buffer, size_t size) override {
    const std::string attribute = systemName(name);
    for (;;) {
      const ssize_t stored = lgetxattr(path, attribute.c_str(), buffer, size);
      if (stored >= 0 || errno != ERANGE) return stored;
      const ssize_t needed = lgetxattr(path, attribute.c_str(), nullptr, 0);
      // One that was replaced by a smaller value in between is read again.
      if (needed < 0 || static_cast<size_t>(needed) > size) return needed;
    }
  }

  int set(const char* path, const char* name, const void* value, size_t size) override {
    return lsetxattr(path, systemName(name).c_str(), value, size, 0);
  }
};

using Seam = Replaceable<ExtendedAttributes, SystemAttributes>;

}  // namespace

const int kNoAttribute = ENODATA;

ExtendedAttributes& ExtendedAttributes::current() { return Seam::current(); }
ExtendedAttributes* ExtendedAttributes::replace(ExtendedAttributes* replacement) {
  return Seam::replace(replacement);
}
ExtendedAttributes& ExtendedAttributes::system() { return Seam::system(); }

}  // namespace pallion
