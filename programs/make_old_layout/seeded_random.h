#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace pallion {

// The same numbers for the same seed on every machine (the splitmix64 sequence). Not for secrets.
class SeededRandom {
 public:
  explicit SeededRandom(uint64_t seed) : state_(seed) {}

  uint64_t next() {
    state_ += 0x9E3779B97F4A7C15U;
    uint64_t mixed = state_;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9U;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBU;
    return mixed ^ (mixed >> 31);
  }

  // 0 to limit - 1.
  uint64_t below(uint64_t limit) { return next() % limit; }

  void fill(char* bytes, size_t count) {
    for (size_t at = 0; at < count; at += sizeof(uint64_t)) {
      const uint64_t number = next();
      std::memcpy(bytes + at, &number, count - at < sizeof number ? count - at : sizeof number);
    }
  }

  // A UUID of version 4 in capitals.
  std::string uuid() {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (const char pattern : std::string_view("xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx")) {
      const uint64_t digit = pattern == 'y' ? 8 + below(4) : below(16);
      text += pattern == 'x' || pattern == 'y' ? kDigits[digit] : pattern;
    }
    return text;
  }

 private:
  uint64_t state_;
};

}  // namespace pallion
