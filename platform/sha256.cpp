#include "platform/sha256.h"

#include <cstdlib>
#include <openssl/crypto.h>
#include <openssl/evp.h>

namespace pallion {

namespace {

// Looking an algorithm up costs far more than digesting a small file, so it is done once a process.
// Left to itself the library would read its configuration first: inside a root that is the root's
// own file, and what that names would be loaded as code. The tables of all other algorithms by name
// are left out because filling them takes longer than anything else here.
const EVP_MD* algorithm() {
  static EVP_MD* const kAlgorithm = [] {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG | OPENSSL_INIT_NO_ADD_ALL_CIPHERS |
                            OPENSSL_INIT_NO_ADD_ALL_DIGESTS,
                        nullptr);
    return EVP_MD_fetch(nullptr, "SHA256", nullptr);
  }();
  return kAlgorithm;
}

// Every call below fails only without memory, or without the algorithm that each build of the
// library has.
void require(bool success) {
  if (!success) std::abort();
}

}  // namespace

struct SHA256Digest::State {
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  State() = default;
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State() { EVP_MD_CTX_free(context); }
};

SHA256Digest::SHA256Digest() : state_(std::make_unique<State>()) {
  require(state_->context && EVP_DigestInit_ex2(state_->context, algorithm(), nullptr) == 1);
}

SHA256Digest::~SHA256Digest() = default;

void SHA256Digest::update(const void* bytes, size_t count) {
  require(EVP_DigestUpdate(state_->context, bytes, count) == 1);
}

SHA256Digest::Bytes SHA256Digest::finish() {
  Bytes digest{};
  unsigned length = 0;
  require(EVP_DigestFinal_ex(state_->context, digest.data(), &length) == 1 &&
          length == digest.size());
  return digest;
}

}  // namespace pallion
