#include "platform/protection_class.h"

#include <cerrno>
#include <cstdint>
#include <endian.h>
#include <sys/xattr.h>

#include "platform/replaceable.h"

namespace pallion {

namespace {

constexpr const char* kAttribute = "user.com.orlix.pallion.protectionclass";

int fail(int number) {
  errno = number;
  return -1;
}

class SystemProtectionClass : public ProtectionClass {
 public:
  int get(int descriptor) override {
    uint32_t stored = 0;
    const ssize_t size = fgetxattr(descriptor, kAttribute, &stored, sizeof stored);
    if (size < 0 && (errno == ENODATA || errno == ENOTSUP)) return 0;
    if (size < 0) return errno == ERANGE ? fail(EINVAL) : -1;
    const auto value = static_cast<int32_t>(le32toh(stored));
    // Not one of ours: negative classes can't be set, and a value of another size is none.
    if (size != sizeof stored || value < 0) return fail(EINVAL);
    return value;
  }

  int set(int descriptor, int protectionClass) override {
    if (protectionClass < 0) return fail(EINVAL);
    const uint32_t stored = htole32(static_cast<uint32_t>(protectionClass));
    if (fsetxattr(descriptor, kAttribute, &stored, sizeof stored, 0) == 0) return 0;
    return errno == ENOTSUP ? 0 : -1;
  }
};

using Seam = Replaceable<ProtectionClass, SystemProtectionClass>;

}  // namespace

ProtectionClass& ProtectionClass::current() { return Seam::current(); }
ProtectionClass* ProtectionClass::replace(ProtectionClass* replacement) {
  return Seam::replace(replacement);
}
ProtectionClass& ProtectionClass::system() { return Seam::system(); }

}  // namespace pallion
