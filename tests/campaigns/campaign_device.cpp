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

void run(const std::vector<std::string>& arguments) {
  const ProcessOutcome outcome = runProcess({.arguments = arguments});
  if (outcome.status != 0) giveUp(arguments[0] + ": " + outcome.err);
}

// Path of a program that was built beside this one.
std::string programPath(const char* name) {
  return fs::read_symlink("/proc/self/exe").parent_path() / name;
}

}  // namespace

CampaignDevice::CampaignDevice(Volumes volumes, const std::vector<std::string>& layoutOptions,
                               std::string fileSystem)
    : original_(directory_ / "original"),
      root_(directory_ / "device"),
      log_(directory_ / "log"),
      fileSystem_(std::move(fileSystem)) {
  std::vector<std::string> maker = {programPath("make-old-layout"), "--root", original_};
  maker.insert(maker.end(), layoutOptions.begin(), layoutOptions.end());
  run(maker);
  before_ = std::make_unique<DeviceState>(original_);

  places_ = {root_};
  if (volumes != Volumes::kOne) places_.push_back(root_ + kOldLayout);
  if (volumes == Volumes::kThree) places_.push_back(root_ + kGroups);
  if (volumes != Volumes::kOne) places_.push_back(root_ + kNewLayout);
  if (fileSystem_ != "tmpfs") {
    const std::string storage = directory_.makeDirectory("storage");
    mountAt(storage, [&] { return Mount::tmpfs(storage, "size=1g,mode=0755"); });
    storage_ = std::move(mounts_.back());
    for (; places_.size() > (volumes == Volumes::kOne ? 0U : 1U); places_.pop_back())
      images_[places_.back()] = storage + "/" + std::to_string(places_.size());
  }
  reset();
  undisturbed_ = migrateUndisturbed();
  if (undisturbed_.status != 0) giveUp("an undisturbed run fails: " + undisturbed_.out);
  registry_ = registryText(root_);
  if (const std::string different = differenceAfterMigration(); !different.empty())
    giveUp("an undisturbed run is wrong: " + different);
}

void CampaignDevice::mountAt(const std::string& place, const std::function<Mount()>& mount) {
  fs::create_directories(place);
  mounts_.emplace_back(new Mount(mount()));
  if (!mounts_.back()->mounted()) giveUp("can't mount a volume at " + place);
}

void CampaignDevice::reset() {
  while (!mounts_.empty()) mounts_.pop_back();
  for (const std::string& place : places_)
    mountAt(place, [&place] { return Mount::tmpfs(place, "size=256m,mode=0755"); });
  for (const auto& [place, image] : images_) {
    fs::remove(image);
    run({"/usr/bin/truncate", "-s", fileSystem_ == "ext4" ? "96M" : "320M", image});
    run({"/sbin/mkfs." + fileSystem_, "-q", image});
  }
  mountImages();
  fill(original_, root_);
  for (const auto& [place, image] : images_) run({"/bin/sync", "-f", place});
}

void CampaignDevice::mountImages() {
  for (const auto& [place, image] : images_)
    mountAt(place, [&place = place, &image = image] { return Mount::image(image, place); });
}

void CampaignDevice::unmountImages() { mounts_.resize(places_.size()); }

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
