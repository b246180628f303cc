#include "platform/service_transactions.h"

#include <condition_variable>
#include <mutex>

namespace pallion {

namespace {

struct State {
  std::mutex mutex;
  std::condition_variable changed;
  int open = 0;
};

State& state() {
  static State* const kState = new State;  // tasks may end while the process exits
  return *kState;
}

}  // namespace

void ServiceTransactions::beginTransaction() {
  const std::lock_guard lock(state().mutex);
  ++state().open;
}

void ServiceTransactions::endTransaction() {
  {
    const std::lock_guard lock(state().mutex);
    --state().open;
  }
  state().changed.notify_all();
}

int ServiceTransactions::openTransactions() {
  const std::lock_guard lock(state().mutex);
  return state().open;
}

bool ServiceTransactions::waitUntilIdle(std::chrono::milliseconds timeout) {
  std::unique_lock lock(state().mutex);
  return state().changed.wait_for(lock, timeout, [] { return state().open <= 0; });
}

}  // namespace pallion
