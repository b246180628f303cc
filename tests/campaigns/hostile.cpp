// Operations on trees that a hostile process changes under them: what is outside must stay. Exit
// status 0 when nothing outside was touched, 1 when something was, 77 when it can't be tried.

#include <CLI/CLI.hpp>
#include <cstdio>

#include "tests/campaigns/hostile_rounds.h"

namespace {

using namespace pallion::test;

bool canSwap() {
  const TemporaryRoot root;
  root.makeDirectory("directory");
  root.makeLink("link", "nowhere");
  return isRoot() && Swapper(root.path()).swap({".", "directory", "link"});
}

// Whether nothing outside was touched in so many swaps.
bool survives(const std::string& kind, uint64_t swaps) {
  const HostileOutcome outcome = kHostileRounds.at(kind)()->run(swaps);
  std::printf("%-10s %8ju %9ju %8ju %15ju %8.1f\n%s", kind.c_str(), uintmax_t{outcome.rounds},
              uintmax_t{outcome.swaps}, uintmax_t{outcome.errors}, uintmax_t{outcome.canaryChanges},
              outcome.seconds, outcome.firstChange.c_str());
  const bool inVain = outcome.swaps < swaps && outcome.canaryChanges == 0;
  if (inVain) std::printf("%s: nothing could be swapped any more\n", kind.c_str());
  // A removal tries again where it meets something else than before, so hardly any one fails.
  const bool failsOften = kind == "removal" && outcome.errors * 10 > outcome.rounds;
  if (failsOften) std::puts("too many removals fail");
  std::fflush(stdout);
  return outcome.canaryChanges == 0 && !inVain && !failsOften;
}

}  // namespace

int main(int count, char** arguments) {
  CLI::App parser("Runs operations on trees that a hostile process changes under them.");
  uint64_t swaps = 1000000;
  std::string only;
  parser.add_option("--swaps", swaps, "how many are to be survived, by all kinds together");
  parser.add_option("--kind", only, "one kind alone")->check(CLI::IsMember(kHostileRounds));
  CLI11_PARSE(parser, count, arguments);
  if (!canSwap()) {
    std::fputs("hostile-campaign: needs to be root, on a file system with RENAME_EXCHANGE\n",
               stderr);
    return 77;
  }
  std::printf("%-10s %8s %9s %8s %15s %8s\n", "kind", "rounds", "swaps", "errors", "canary changes",
              "seconds");
  bool survived = true;
  for (const auto& [kind, make] : kHostileRounds) {
    if (only.empty() || only == kind)
      survived &= survives(kind, only.empty() ? swaps / kHostileRounds.size() : swaps);
  }
  return survived ? 0 : 1;
}
