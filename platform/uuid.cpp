#include "platform/uuid.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <sys/random.h>

namespace pallion {

namespace {

constexpr std::string_view kDigits = "0123456789ABCDEF";
// x: any digit; y: the variant, one of 8, 9, A and B; the rest stands for itself.
constexpr std::string_view kShape = "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx";

}  // namespace

std::string makeUUID() {
  std::array<uint8_t, kShape.size()> random;
  // Up to 256 bytes come whole. The call can only be interrupted, and that only early in the
  // machine's start.
  while (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) {
    if (errno != EINTR) std::abort();
  }
  std::string text(kShape);
  for (size_t i = 0; i < text.size(); ++i) {
    if (kShape[i] == 'x') text[i] = kDigits[random[i] & 0xF];
    if (kShape[i] == 'y') text[i] = kDigits[8U | (random[i] & 3U)];
  }
  return text;
}

bool isUUID(std::string_view text) {
  if (text.size() != kShape.size()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const size_t digit = kDigits.find(text[i]);
    const bool fits = kShape[i] == 'x'   ? digit != std::string_view::npos
                      : kShape[i] == 'y' ? digit >= 8 && digit <= 11
                                         : text[i] == kShape[i];
    if (!fits) return false;
  }
  return true;
}

}  // namespace pallion
