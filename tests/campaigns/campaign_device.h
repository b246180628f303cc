#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/helpers/device_state.h"
#include "tests/helpers/gated_process.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

enum class Volumes {
  kOne,
  kThree,  // old containers, group containers and new containers, each on a volume of its own
  kTwo,    // group containers stand with the old ones
};

// A device with a small old layout that can be put back to its beginning as often as wanted. To be
// made inside a private mount namespace.
class CampaignDevice {
 public:
  // Volumes beside the one of the root, or that one when it is alone, are of that kind: in memory,
  // or ext4, xfs, btrfs in images.
  CampaignDevice(Volumes volumes, const std::vector<std::string>& layoutOptions,
                 std::string fileSystem = "tmpfs");

  // The old layout again, and nothing of the new one.
  void reset();

  // Where each image is mounted.
  [[nodiscard]] const std::map<std::string, std::string>& images() const { return images_; }
  void unmountImages();
  void mountImages();

  // One run of the migration host.
  GatedProcess::Outcome migrate(const GatedProcess::Gate& gate) const;
  [[nodiscard]] GatedProcess::Outcome migrateUndisturbed() const;
  // Error lines of the last run's log.
  [[nodiscard]] std::vector<std::string> errorsLogged() const;
  void clearLog() const;

  // Empty when the device is as after an undisturbed migration; otherwise what is wrong.
  [[nodiscard]] std::string differenceAfterMigration() const;
  // Empty when everything stands whole somewhere.
  [[nodiscard]] std::string missing(DeviceState::Whole whole) const {
    return before_->missingBelow(root_, whole);
  }

  [[nodiscard]] const std::string& root() const { return root_; }
  // Calls of an undisturbed run.
  [[nodiscard]] const GatedProcess::Outcome& undisturbed() const { return undisturbed_; }

 private:
  void mountAt(const std::string& place, const std::function<Mount()>& mount);

  TemporaryRoot directory_;
  std::string original_;
  std::string root_;
  std::string log_;
  const std::string fileSystem_;
  std::vector<std::string> places_;  // of volumes in memory
  std::map<std::string, std::string> images_;
  std::unique_ptr<Mount> storage_;  // of the images
  std::vector<std::unique_ptr<Mount>> mounts_;
  std::unique_ptr<DeviceState> before_;
  std::string registry_;
  GatedProcess::Outcome undisturbed_;
};

}  // namespace pallion::test
