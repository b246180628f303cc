#include <algorithm>
#include <csignal>
#include <cstdio>
#include <random>

#include "tests/campaigns/campaigns.h"

namespace pallion::test {

namespace {

// The layout has one of everything that is migrated differently.
const std::vector<std::string> kLayout = {
    "--apps",         "5", "--vpn",   "1", "--groups",    "3",  "--harbors", "2",
    "--placeholders", "1", "--files", "3", "--file-size", "100"};

constexpr const char* kInstallMap = "/private/var/mobile/Library/Caches/com.orlix.pallion.plist";
constexpr const char* kMapRemains = "still there: /Library/Caches/com.orlix.pallion.plist\n";

class Kills {
 public:
  explicit Kills(Volumes volumes) : device_(volumes, kLayout) {}

  [[nodiscard]] unsigned changes() const { return device_.undisturbed().changes; }

  // Starts over, is killed at each of the points in turn, and then runs through.
  bool survives(std::initializer_list<unsigned> points) {
    device_.reset();
    std::string where;
    bool betweenLastRemovals = false;
    for (const unsigned point : points) {
      const std::string call = runUntil(point);
      where += " before change " + std::to_string(point) + " (" + call + ")";
      if (const std::string missing = device_.missing(DeviceState::Whole::kEverything);
          !missing.empty()) {
        report("kill", where, missing);
        return false;
      }
      betweenLastRemovals |= !exists(device_.root() + "/private/var/mobile/Applications") &&
                             exists(device_.root() + kInstallMap);
    }
    const GatedProcess::Outcome last = device_.migrateUndisturbed();
    std::string difference = device_.differenceAfterMigration();
    // Without old containers nobody looks at the map of their groups any more.
    if (betweenLastRemovals && difference == kMapRemains) difference.clear();
    if (last.status == 0 && difference.empty()) return true;
    report("kill", where, "status " + std::to_string(last.status) + "\n" + last.out + difference);
    return false;
  }

 private:
  std::string runUntil(unsigned point) {
    unsigned change = 0;
    std::string name = "not reached";
    device_.migrate([&](const GatedProcess::Call& call) {
      if (!call.changes || ++change != point) return 0;
      name = call.name;
      return GatedProcess::kKill;
    });
    return name;
  }

  CampaignDevice device_;
};

}  // namespace

unsigned runKills(const CampaignOptions& options) {
  Kills kills(options.volumes);
  const unsigned all = kills.changes();
  const unsigned count = options.points == 0 ? all : std::min(options.points, all);
  unsigned findings = 0;
  for (unsigned i = 0; i < count; ++i) {
    const unsigned point = pointAt(i, count, all);
    if (!kills.survives({point})) ++findings;
  }
  std::mt19937_64 random(options.seed);
  for (unsigned i = 0; i < options.doubles; ++i) {
    const auto first = static_cast<unsigned>(1 + random() % all);
    // The second run has about what the first one left.
    const auto second = static_cast<unsigned>(1 + random() % (all - first + 60));
    if (!kills.survives({first, second})) ++findings;
  }
  std::printf("kill: %u changes a run, killed before %u of them, and %u times twice: %u findings\n",
              all, count, options.doubles, findings);
  return findings;
}

}  // namespace pallion::test
