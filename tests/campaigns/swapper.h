#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "foundation/unique_descriptor.h"

namespace pallion::test {

// A directory that is to be exchanged with a link, over and over. All paths are relative to the
// swapper's base.
struct SwappedPair {
  std::string parent;  // of the directory
  std::string name;
  std::string link;  // path of the link, outside the tree
};

// The hostile process: exchanges (RENAME_EXCHANGE) the pairs' directories and links in turn, on a
// thread of its own, while it is let loose. It never goes through a link itself.
class Swapper {
 public:
  explicit Swapper(const std::string& base);
  Swapper(const Swapper&) = delete;
  Swapper& operator=(const Swapper&) = delete;
  ~Swapper();

  // Not while it is loose. A pause makes the operations get further before they meet a swap.
  // Returns once it has begun.
  void letLoose(std::vector<SwappedPair> pairs, std::chrono::microseconds pause);
  [[nodiscard]] uint64_t swaps() const { return swaps_; }
  // Answers how many exchanges succeeded since it was let loose.
  uint64_t call();

  // One exchange, at once.
  [[nodiscard]] bool swap(const SwappedPair& pair) const;

 private:
  UniqueDescriptor base_;
  std::atomic<uint64_t> swaps_ = 0;
  std::atomic<bool> began_ = false;
  std::jthread thread_;
};

}  // namespace pallion::test
