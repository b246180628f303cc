// Operations on trees that a hostile process changes under them: what is outside must stay.
//
//   hostile-campaign [--swaps N] [--kind removal|copy|ownership|migration]
//
// Exit status 0 when nothing outside was touched, 1 when something was, 77 when it can't be tried.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>

#include "tests/campaigns/hostile_rounds.h"
#include "tests/campaigns/swapper.h"
#include "tests/helpers/temporary_root.h"

namespace {

using namespace pallion::test;

constexpr int kWrongUsage = 2;
constexpr int kNotPossible = 77;

struct Kind {
  std::string_view name;
  std::unique_ptr<HostileRounds> (*make)();
};
constexpr Kind kKinds[] = {{"removal", removalRounds},
                           {"copy", copyRounds},
                           {"ownership", ownershipRounds},
                           {"migration", migrationRounds}};

bool canSwap() {
  const TemporaryRoot root;
  root.makeDirectory("directory");
  root.makeLink("link", "nowhere");
  return isRoot() && Swapper(root.path()).swap({".", "directory", "link"});
}

int usage() {
  std::fputs("usage: hostile-campaign [--swaps N] [--kind removal|copy|ownership|migration]\n",
             stderr);
  return kWrongUsage;
}

}  // namespace

int main(int count, char** arguments) {
  uint64_t swaps = 1000000;
  std::string_view only;
  for (int i = 1; i < count; ++i) {
    const std::string_view name = arguments[i];
    if (i + 1 == count) return usage();
    char* const value = arguments[++i];
    char* end = value;
    if (name == "--swaps") {
      swaps = std::strtoull(value, &end, 10);
    } else if (name == "--kind") {
      only = value;
      for (const Kind& kind : kKinds) end = kind.name == only ? nullptr : end;
    }
    if (end == value || (end && *end != '\0')) return usage();
  }
  if (!canSwap()) {
    std::fputs("hostile-campaign: needs to be root, on a file system with RENAME_EXCHANGE\n",
               stderr);
    return kNotPossible;
  }
  const uint64_t each = only.empty() ? swaps / std::size(kKinds) : swaps;
  std::printf("%-10s %8s %9s %8s %15s %8s\n", "kind", "rounds", "swaps", "errors", "canary changes",
              "seconds");
  bool survived = true;
  for (const Kind& kind : kKinds) {
    if (!only.empty() && only != kind.name) continue;
    const HostileOutcome outcome = kind.make()->run(each);
    std::printf("%-10s %8ju %9ju %8ju %15ju %8.1f\n", kind.name.data(),
                static_cast<uintmax_t>(outcome.rounds), static_cast<uintmax_t>(outcome.swaps),
                static_cast<uintmax_t>(outcome.errors),
                static_cast<uintmax_t>(outcome.canaryChanges), outcome.seconds);
    std::fputs(outcome.firstChange.c_str(), stdout);
    std::fflush(stdout);
    if (outcome.swaps < each && outcome.canaryChanges == 0) {
      std::printf("%s: nothing could be swapped any more\n", kind.name.data());
    }
    survived = survived && outcome.canaryChanges == 0 && outcome.swaps >= each;
  }
  return survived ? 0 : 1;
}
