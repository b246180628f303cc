#include "tests/campaigns/swapper.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace pallion::test {

Swapper::Swapper(const std::string& base)
    : base_(open(base.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

Swapper::~Swapper() { call(); }

void Swapper::letLoose(std::vector<SwappedPair> pairs, std::chrono::microseconds pause) {
  swaps_ = 0;
  began_ = false;
  thread_ = std::jthread([this, pairs = std::move(pairs), pause](const std::stop_token& stop) {
    for (size_t i = 0; !stop.stop_requested(); i = (i + 1) % pairs.size()) {
      if (swap(pairs[i])) ++swaps_;
      if (!began_.exchange(true)) began_.notify_one();
      if (pause.count() > 0) std::this_thread::sleep_for(pause);
    }
  });
  began_.wait(false);
}

uint64_t Swapper::call() {
  thread_.request_stop();
  if (thread_.joinable()) thread_.join();
  return swaps_;
}

bool Swapper::swap(const SwappedPair& pair) const {
  open_how how{};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_NO_SYMLINKS;
  const UniqueDescriptor parent(
      static_cast<int>(syscall(SYS_openat2, base_.get(), pair.parent.c_str(), &how, sizeof how)));
  return parent && renameat2(parent.get(), pair.name.c_str(), base_.get(), pair.link.c_str(),
                             RENAME_EXCHANGE) == 0;
}

}  // namespace pallion::test
