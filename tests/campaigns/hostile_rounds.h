#pragma once

#include <cstdint>
#include <memory>
#include <string>

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
// the same names, to whose directories the links lead.
class HostileRounds {
 public:
  HostileRounds() = default;
  HostileRounds(const HostileRounds&) = delete;
  HostileRounds& operator=(const HostileRounds&) = delete;
  virtual ~HostileRounds() = default;

  // Runs rounds until so many swaps have been survived; gives up after a change of the canary, or
  // when nothing can be swapped any more.
  virtual HostileOutcome run(uint64_t swaps) = 0;
};

std::unique_ptr<HostileRounds> removalRounds();
std::unique_ptr<HostileRounds> copyRounds();
std::unique_ptr<HostileRounds> ownershipRounds();
std::unique_ptr<HostileRounds> migrationRounds();

}  // namespace pallion::test
