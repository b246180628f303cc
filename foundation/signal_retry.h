#pragma once

#include <cerrno>

namespace pallion {

// Makes a call again that a signal interrupted (EINTR), and answers what it answers last. Gives up
// after more interruptions than signals can account for. Not for syncs: none is made twice.
template <class Call>
auto retriedAfterSignals(const Call& call) {
  constexpr int kAttempts = 100;
  auto result = call();
  for (int i = 1; result < 0 && errno == EINTR && i < kAttempts; ++i) result = call();
  return result;
}

}  // namespace pallion
