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

void cut(const std::string& mountPoint) {
  const UniqueDescriptor directory(open(mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  uint32_t flags = kWithoutLogFlush;
  if (!directory || ioctl(directory.get(), kShutDown, &flags) != 0) {
    std::perror(("shutting down " + mountPoint).c_str());
    std::exit(2);
  }
}

// A device whose old and new layout, or which as a whole, stands on file systems in images.
class PoweredDevice {
 public:
  PoweredDevice(Volumes volumes, const std::string& kind) : kind_(kind) {
    if (volumes != Volumes::kOne) {
      plain_.reset(new Mount(Mount::tmpfs(root_, "size=64m,mode=0755")));
      places_ = {root_ + "/private/var/mobile", root_ + "/private/var/palliond"};
      for (const std::string& place : places_) fs::create_directories(place);
    }
    for (size_t i = 0; i < places_.size(); ++i) {
      run({"/usr/bin/truncate", "-s", kind_ == "ext4" ? "96M" : "320M", imageAt(i)});
      run({"/sbin/mkfs." + kind_, "-q", imageAt(i)});
    }
    mountAll();
    std::vector<std::string> maker = {programPath("make-old-layout"), "--root", root_};
    maker.insert(maker.end(), kLayout.begin(), kLayout.end());
    run(maker);
    before_ = std::make_unique<DeviceState>(root_);
    unmountAll();
    for (size_t i = 0; i < places_.size(); ++i)
      run({"/bin/cp", "--sparse=always", imageAt(i), imageAt(i) + ".original"});
  }
  PoweredDevice(const PoweredDevice&) = delete;
  PoweredDevice& operator=(const PoweredDevice&) = delete;
  ~PoweredDevice() { unmountAll(); }

  void reset() {
    unmountAll();
    for (size_t i = 0; i < places_.size(); ++i)
      run({"/bin/cp", "--sparse=always", imageAt(i) + ".original", imageAt(i)});
    mountAll();
  }

  // The change before which the power goes; 0 for none. Answers the changes seen.
  unsigned runUntil(unsigned point, std::string& call) {
    unsigned change = 0;
    return GatedProcess::run({programPath("migration-host"), "--root", root_, "-q"},
                             [&](const GatedProcess::Call& seen) {
                               if (!seen.changes || ++change != point) return 0;
                               call = seen.name;
                               cutNow();
                               return GatedProcess::kKill;
                             })
        .changes;
  }

  void cutNow() {
    for (size_t i = 0; i < places_.size(); ++i) {
      if (kind_ == "btrfs") {
        // Has no shutdown control in every kernel; what its image holds at this moment comes to the
        // same.
        run({"/bin/cp", "--sparse=always", imageAt(i), imageAt(i) + ".cut"});
      } else {
        cut(places_[i]);
      }
    }
  }

  // Power returns: the journals are replayed, the next run finishes. Empty when nothing is lost.
  std::string problemAfterReturn() {
    unmountAll();
    for (size_t i = 0; kind_ == "btrfs" && i < places_.size(); ++i)
      fs::rename(imageAt(i) + ".cut", imageAt(i));
    mountAll();
    std::string problem = before_->missingBelow(root_);
    const ProcessOutcome outcome =
        runProcess({.arguments = {programPath("migration-host"), "--root", root_},
                    .environment = {"ASAN_OPTIONS=detect_leaks=0"}});
    if (outcome.status != 0) {
      problem += "the next run ends with " + std::to_string(outcome.status) + "\n" + outcome.out +
                 outcome.err;
    }
    return problem + before_->differenceAfterMigration(root_);
  }

 private:
  [[nodiscard]] std::string imageAt(size_t i) const {
    return directory_ / ("storage/image" + std::to_string(i));
  }

  static void run(const std::vector<std::string>& arguments) {
    const ProcessOutcome outcome = runProcess({.arguments = arguments});
    if (outcome.status == 0) return;
    std::fprintf(stderr, "campaign: %s: %s\n", arguments[0].c_str(), outcome.err.c_str());
    std::exit(2);
  }

  void mountAll() {
    for (size_t i = 0; i < places_.size(); ++i) {
      run({"/bin/mount", "-o", "loop", imageAt(i), places_[i]});
      mounted_ = i + 1;
    }
  }

  void unmountAll() {
    for (; mounted_ > 0; --mounted_) run({"/bin/umount", places_[mounted_ - 1]});
  }

  const std::string kind_;
  TemporaryRoot directory_;
  const std::string root_ = directory_.makeDirectory("device");
  const Mount storage_ = Mount::tmpfs(directory_.makeDirectory("storage"), "size=1g,mode=0755");
  std::unique_ptr<Mount> plain_;
  std::vector<std::string> places_ = {root_};  // each gets the image of its index
  size_t mounted_ = 0;
  std::unique_ptr<DeviceState> before_;
};

}  // namespace

unsigned runPowerCuts(const CampaignOptions& options) {
  PoweredDevice device(options.volumes, options.fileSystem);
  std::string call;
  device.reset();
  const unsigned all = device.runUntil(0, call);
  const unsigned count = std::min(options.points == 0 ? 100 : options.points, all);
  unsigned findings = 0;
  const auto judge = [&](const std::string& where) {
    const std::string problem = device.problemAfterReturn();
    if (problem.empty()) return;
    ++findings;
    report("power", where, problem);
  };
  for (unsigned i = 0; i < count; ++i) {
    const unsigned point = pointAt(i, count, all);
    device.reset();
    device.runUntil(point, call);
    judge(" before change " + std::to_string(point) + " (" + call + ")");
  }
  unsigned cutsAfter = 0;
  for (const int seconds : {0, 1, 5, 7, 12, 20, 45}) {
    if (!options.after) break;
    device.reset();
    device.runUntil(0, call);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    device.cutNow();
    ++cutsAfter;
    judge(" " + std::to_string(seconds) + " s after the run");
  }
  std::printf(
      "power (%s): %u changes a run, cut before %u of them and %u times after a run: %u findings\n",
      options.fileSystem.c_str(), all, count, cutsAfter, findings);
  return findings;
}

}  // namespace pallion::test
