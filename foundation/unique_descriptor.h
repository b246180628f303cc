#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace pallion {

// Owns one file descriptor. Closing it leaves errno alone.
class UniqueDescriptor {
 public:
  UniqueDescriptor() = default;
  explicit UniqueDescriptor(int descriptor) : descriptor_(descriptor) {}
  UniqueDescriptor(UniqueDescriptor&& other) noexcept : descriptor_(other.release()) {}
  UniqueDescriptor& operator=(UniqueDescriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~UniqueDescriptor() { reset(); }

  [[nodiscard]] int get() const { return descriptor_; }
  [[nodiscard]] explicit operator bool() const { return descriptor_ >= 0; }

  int release() { return std::exchange(descriptor_, -1); }
  void reset(int descriptor = -1) {
    if (descriptor_ >= 0) {
      const int number = errno;
      close(descriptor_);
      errno = number;
    }
    descriptor_ = descriptor;
  }

 private:
  int descriptor_ = -1;
};

}  // namespace pallion
