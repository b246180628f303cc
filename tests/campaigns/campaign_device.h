#pragma once

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
};

// A device with a small old layout that can be put back to its beginning as often as wanted. To be
// made inside a private mount namespace.
class CampaignDevice {
 public:
  CampaignDevice(Volumes volumes, const std::vector<std::string>& layoutOptions);

  // The old layout again, and nothing of the new one.
  void reset();

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
  TemporaryRoot directory_;
  std::string original_;
  std::string root_;
  std::string log_;
  std::vector<std::string> places_;  // of the mounted volumes
  std::vector<std::unique_ptr<Mount>> mounts_;
  std::unique_ptr<DeviceState> before_;
  std::string registry_;
  GatedProcess::Outcome undisturbed_;
};

// Path of a program that was built beside this one.
std::string programPath(const char* name);

}  // namespace pallion::test
