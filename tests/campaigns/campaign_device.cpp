#include "tests/campaigns/campaign_device.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/tree_copy.h"
#include "tests/helpers/child_process.h"

namespace pallion::test {

namespace fs = std::filesystem;

namespace {

constexpr const char* kOldLayout = "/private/var/mobile";
constexpr const char* kGroups = "/private/var/mobile/Library/GroupContainers";
constexpr const char* kNewLayout = "/private/var/palliond";

[[noreturn]] void giveUp(const std::string& text) {
  std::fprintf(stderr, "campaign: %s\n", text.c_str());
  std::exit(2);
}

// Copies what is in a directory into another one, where directories may stand already.
void fill(const std::string& from, const std::string& to) {
  for (const auto& entry : fs::directory_iterator(from)) {
    const std::string source = entry.path();
    const std::string destination = to + "/" + entry.path().filename().string();
    if (exists(destination)) {
      fill(source, destination);
    } else if (TreeCopy::system().copy(source.c_str(), destination.c_str()) != 0) {
      giveUp("can't copy " + source + " to " + destination);
    }
  }
}

}  // namespace

std::string programPath(const char* name) {
  return fs::read_symlink("/proc/self/exe").parent_path() / name;
}

CampaignDevice::CampaignDevice(Volumes volumes, const std::vector<std::string>& layoutOptions)
    : original_(directory_ / "original"), root_(directory_ / "device"), log_(directory_ / "log") {
  std::vector<std::string> maker = {programPath("make-old-layout"), "--root", original_};
  maker.insert(maker.end(), layoutOptions.begin(), layoutOptions.end());
  if (const auto made = runProcess({.arguments = maker}); made.status != 0) giveUp(made.err);
  before_ = std::make_unique<DeviceState>(original_);

  places_ = {root_};
  if (volumes == Volumes::kThree) {
    for (const char* place : {kOldLayout, kGroups, kNewLayout}) places_.push_back(root_ + place);
  }
  reset();
  undisturbed_ = migrateUndisturbed();
  if (undisturbed_.status != 0) giveUp("an undisturbed run fails: " + undisturbed_.out);
  registry_ = registryText(root_);
  if (const std::string different = differenceAfterMigration(); !different.empty())
    giveUp("an undisturbed run is wrong: " + different);
}

void CampaignDevice::reset() {
  while (!mounts_.empty()) mounts_.pop_back();
  for (const std::string& place : places_) {
    fs::create_directories(place);
    mounts_.emplace_back(new Mount(Mount::tmpfs(place, "size=256m,mode=0755")));
    if (!mounts_.back()->mounted()) giveUp("can't mount a volume at " + place);
  }
  fill(original_, root_);
}

GatedProcess::Outcome CampaignDevice::migrate(const GatedProcess::Gate& gate) const {
  return GatedProcess::run(
      {programPath("migration-host"), "--root", root_, "--log", log_, "--progress=none"}, gate,
      log_);
}

GatedProcess::Outcome CampaignDevice::migrateUndisturbed() const {
  return migrate([](const GatedProcess::Call&) { return 0; });
}

std::vector<std::string> CampaignDevice::errorsLogged() const {
  std::vector<std::string> errors;
  std::ifstream log(log_);
  for (std::string line; std::getline(log, line);) {
    if (line.find(" [3] ") != std::string::npos) errors.push_back(line);
  }
  return errors;
}

void CampaignDevice::clearLog() const { fs::remove(log_); }

std::string CampaignDevice::differenceAfterMigration() const {
  std::string difference = before_->differenceAfterMigration(root_);
  const std::string registry = registryText(root_);
  if (registry != registry_) {
    difference += "the registry says:\n" + registry + "instead of:\n" + registry_;
  }
  return difference;
}

}  // namespace pallion::test
