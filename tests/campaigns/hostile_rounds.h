#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/campaigns/swapper.h"
#include "tests/helpers/temporary_root.h"
#include "tests/helpers/tree_snapshot.h"

// What runs again and again while directories under it are exchanged with links that lead out.

namespace pallion::test {

// What a number of rounds of one kind came to.
struct HostileOutcome {
  uint64_t rounds = 0;
  uint64_t swaps = 0;          // that succeeded while the operation ran
  uint64_t errors = 0;         // operations that ended in an error, as they may
  uint64_t canaryChanges = 0;  // rounds after which something outside the tree was not as before
  std::string firstChange;     // what, readable
  double seconds = 0;
};

// One kind of operation with the tree that it is run on and, outside of it, the canary: a tree with
// the same names, to whose directories the links lead. Below a directory of its own: the tree, the
// links while they are not in the tree, and the canary.
class HostileRounds {
 public:
  HostileRounds() = default;
  HostileRounds(const HostileRounds&) = delete;
  HostileRounds& operator=(const HostileRounds&) = delete;
  virtual ~HostileRounds() = default;

  // Runs rounds until so many swaps have been survived; gives up after a change of the canary, or
  // when nothing can be swapped any more.
  HostileOutcome run(uint64_t swaps);

 protected:
  // What the round is to swap.
  virtual std::vector<SwappedPair> prepare(uint64_t round) = 0;
  virtual bool operate() = 0;
  // Whether one round may well operate more than once.
  [[nodiscard]] virtual bool isRepeatable() const { return false; }
  // Something of the canary where it does not belong; empty for nothing.
  virtual std::string leak() { return ""; }

  [[nodiscard]] virtual TreeSnapshot canaryNow() const {
    return snapshotTree(root_ / "canary", {.changeTimes = true});
  }
  void canaryIsComplete() { canary_ = canaryNow(); }

  // A link for the directory `relative` (from the base) that leads to `target`.
  SwappedPair pairFor(const std::string& relative, const std::string& target);
  void dropLinks();

  TemporaryRoot root_;

 private:
  Swapper swapper_{root_.path()};
  TreeSnapshot canary_;
  int links_ = 0;
};

// By name.
extern const std::map<std::string, std::function<std::unique_ptr<HostileRounds>()>> kHostileRounds;

}  // namespace pallion::test
