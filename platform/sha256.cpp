#include "platform/sha256.h"

#include <algorithm>
#include <cstdlib>
#include <gcrypt.h>

namespace pallion {

namespace {

// Every call below fails only without memory, or without the algorithm that each build of the
// library has.
void require(bool success) {
  if (!success) std::abort();
}

// No secret is digested, so that memory need not be locked for any.
bool initialize() {
  return gcry_check_version(nullptr) != nullptr && gcry_control(GCRYCTL_DISABLE_SECMEM) == 0 &&
         gcry_control(GCRYCTL_INITIALIZATION_FINISHED) == 0;
}

}  // namespace

struct SHA256Digest::State {
  gcry_md_hd_t context = nullptr;
  State() = default;
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State() { gcry_md_close(context); }
};

SHA256Digest::SHA256Digest() : state_(std::make_unique<State>()) {
  static const bool kInitialized = initialize();
  require(kInitialized && gcry_md_open(&state_->context, GCRY_MD_SHA256, 0) == 0);
}

SHA256Digest::~SHA256Digest() = default;

void SHA256Digest::update(const void* bytes, size_t count) {
  gcry_md_write(state_->context, bytes, count);
}

SHA256Digest::Bytes SHA256Digest::finish() {
  Bytes digest{};
  std::copy_n(gcry_md_read(state_->context, GCRY_MD_SHA256), digest.size(), digest.begin());
  return digest;
}

}  // namespace pallion
