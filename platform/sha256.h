#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace pallion {

// One SHA-256 computation (FIPS 180-4). Belongs to one thread at a time.
class SHA256Digest {
 public:
  using Bytes = std::array<uint8_t, 32>;

  SHA256Digest();
  SHA256Digest(const SHA256Digest&) = delete;
  SHA256Digest& operator=(const SHA256Digest&) = delete;
  ~SHA256Digest();

  void update(const void* bytes, size_t count);
  // The digest of everything given so far. To be called once.
  Bytes finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace pallion
