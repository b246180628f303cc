#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

namespace pallion::host {

// While it lives, SIGINT and SIGTERM end the process in order, with 128 + the signal's number: one
// line on standard error says that a later run resumes. A second signal meanwhile ends the process
// at once. A signal that the caller ignores stays ignored.
class InterruptWatch {
 public:
  // To be made before other threads: they inherit that the signals are blocked. `lastWords` is
  // called with the exit status on a thread of its own, right before the process ends.
  explicit InterruptWatch(std::function<void(int exitStatus)> lastWords);
  InterruptWatch(const InterruptWatch&) = delete;
  InterruptWatch& operator=(const InterruptWatch&) = delete;
  // From here on the signals do again what they did before.
  ~InterruptWatch();

 private:
  void wait();

  std::function<void(int)> lastWords_;
  sigset_t signals_{};
  sigset_t maskBefore_{};
  std::atomic<bool> over_{false};
  std::thread thread_;
};

}  // namespace pallion::host
