#pragma once

namespace pallion {

// Data-protection classes, which the file system keeps as the attribute
// "user.com.orlix.pallion.protectionclass" (a 32-bit integer, little-endian). Without attribute
// support setting succeeds without effect and the class reads 0.
class ProtectionClass {
 public:
  ProtectionClass() = default;
  ProtectionClass(const ProtectionClass&) = delete;
  ProtectionClass& operator=(const ProtectionClass&) = delete;
  virtual ~ProtectionClass() = default;

  // The class of the open item (0 when none was ever set), or -1 with errno set; EINVAL when the
  // attribute holds something else than a class.
  virtual int get(int descriptor) = 0;
  // 0, or -1 with errno set; EINVAL for a negative class.
  virtual int set(int descriptor, int protectionClass) = 0;

  // The seam; see RecursiveRemove.
  static ProtectionClass& current();
  static ProtectionClass* replace(ProtectionClass* replacement);
  static ProtectionClass& system();
};

}  // namespace pallion
