#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

#include "foundation/unique_descriptor.h"
#include "tests/campaigns/campaigns.h"
#include "tests/helpers/child_process.h"

namespace pallion::test {

namespace fs = std::filesystem;

namespace {

// About 2,000 files of user data.
const std::vector<std::string> kLayout = {
    "--apps",         "12", "--vpn",   "2",   "--groups",    "4",   "--harbors", "3",
    "--placeholders", "2",  "--files", "100", "--file-size", "3000"};

// FS_IOC_SHUTDOWN without flushing the log: what the volume has not written by now is lost, and the
// journal ends with what was committed. The number is that of xfs, where it comes from.
constexpr unsigned long kShutDown = _IOR('X', 125, uint32_t);
constexpr uint32_t kWithoutLogFlush = 2;

class Power {
 public:
  Power(Volumes volumes, const std::string& kind)
      : kind_(kind), device_(volumes == Volumes::kOne ? volumes : Volumes::kTwo, kLayout, kind) {}

  // The change before which the power goes; 0 for none. Answers the changes seen.
  unsigned runUntil(unsigned point, std::string& call) {
    device_.reset();
    unsigned change = 0;
    const auto gate = [&](const GatedProcess::Call& seen) {
      if (!seen.changes || ++change != point) return 0;
      call = seen.name;
      cut();
      return GatedProcess::kKill;
    };
    return device_.migrate(gate).changes;
  }

  void cut() {
    for (const auto& [place, image] : device_.images()) {
      if (kind_ == "btrfs") {
        // Has no shutdown control in every kernel; what its image holds at this moment comes to the
        // same.
        const std::vector<std::string> copy = {"/bin/cp", "--sparse=always", image, image + ".cut"};
        if (runProcess({.arguments = copy}).status == 0) continue;
      }
      const UniqueDescriptor directory(open(place.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      uint32_t flags = kWithoutLogFlush;
      if (directory && ioctl(directory.get(), kShutDown, &flags) == 0) continue;
      std::perror(("shutting down " + place).c_str());
      std::exit(2);
    }
  }

  // Power returns: the journals are replayed, the next run finishes. Empty when nothing is lost.
  std::string problemAfterReturn() {
    device_.unmountImages();
    for (const auto& [place, image] : device_.images())
      if (kind_ == "btrfs") fs::rename(image + ".cut", image);
    device_.mountImages();
    std::string problem = device_.missing(DeviceState::Whole::kEverything);
    const GatedProcess::Outcome next = device_.migrateUndisturbed();
    if (next.status != 0)
      problem += "the next run ends with " + std::to_string(next.status) + "\n" + next.out;
    return problem + device_.differenceAfterMigration();
  }

 private:
  const std::string kind_;
  CampaignDevice device_;
};

}  // namespace

unsigned runPowerCuts(const CampaignOptions& options) {
  Power power(options.volumes, options.fileSystem);
  std::string call;
  const unsigned all = power.runUntil(0, call);
  const unsigned count = std::min(options.points == 0 ? 100 : options.points, all);
  unsigned findings = 0;
  const auto judge = [&](const std::string& where) {
    const std::string problem = power.problemAfterReturn();
    if (problem.empty()) return;
    ++findings;
    report("power", where, problem);
  };
  for (unsigned i = 0; i < count; ++i) {
    const unsigned point = pointAt(i, count, all);
    power.runUntil(point, call);
    judge(" before change " + std::to_string(point) + " (" + call + ")");
  }
  unsigned cutsAfter = 0;
  for (const int seconds : {0, 1, 5, 7, 12, 20, 45}) {
    if (!options.after) break;
    power.runUntil(0, call);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    power.cut();
    ++cutsAfter;
    judge(" " + std::to_string(seconds) + " s after the run");
  }
  std::printf(
      "power (%s): %u changes a run, cut before %u of them and %u times after a run: %u findings\n",
      options.fileSystem.c_str(), all, count, cutsAfter, findings);
  return findings;
}

}  // namespace pallion::test
