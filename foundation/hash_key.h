#pragma once

#include <cstdint>
#include <sys/random.h>

namespace pallion {

// A random key of the process for its hash tables, so that keys chosen to collide do not. Odd, the
// same with every call. From any thread.
inline uint64_t hashKey() {
  static const uint64_t kKey = [] {
    uint64_t key = 0;
    if (getrandom(&key, sizeof key, 0) != sizeof key) key = 0x9E3779B97F4A7C15;
    return key | 1;
  }();
  return kKey;
}

}  // namespace pallion
