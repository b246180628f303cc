#include "AppMigrator/app_migrator.h"

#include <cstring>

#include "AppMigrator/harbor_entry.h"
#include "AppMigrator/migrator_log.h"
#include "file_operations/file_manager.h"
#include "foundation/error.h"
#include "foundation/export.h"
#include "foundation/file_contents.h"
#include "foundation/property_list.h"

namespace pallion {

namespace {

constexpr char kInit[] = "-[PLAppMigrator init]";

}  // namespace

PLAppMigrator::PLAppMigrator(const PLGlobalConfiguration& configuration)
    : configuration_(configuration) {}

bool PLAppMigrator::init() {
  if (!MigrationPluginBase::init()) return false;
  bool nothingButLinks = false;
  if (!readInventory(nothingButLinks, nullptr)) return false;
  if (nothingButLinks) {
    const PLFileManager& files = PLFileManager::defaultManager();
    const URL containers = configuration_.oldContainerPath();
    const URL installMap = configuration_.oldInstallMapPath();
    Error error;
    if (!files.removeItemAtURL(containers, nullptr)) {
      logError(kInit, "PLAppMigrator: Failed to remove %@", containers.path());
    }
    if (!files.removeItemAtURL(installMap, &error)) {
      logError(kInit, "PLAppMigrator: Failed to remove %@ : %@", installMap.path(), error);
    }
  }
  readHarborMap();
  return true;
}

bool PLAppMigrator::readInventory(bool& nothingButLinks, std::string* problem) {
  const PLFileManager& files = PLFileManager::defaultManager();
  const URL containers = configuration_.oldContainerPath();
  if (files.itemDoesNotExistAtURL(containers)) return true;
  Error error;
  std::optional<std::vector<URL>> items =
      files.urlsForItemsInDirectoryAtURL(containers, true, &error);
  if (!items) {
    logError(kInit, "PLAppMigrator: Failed to get items at %@ : %@", containers, error);
    if (problem) *problem = std::string(error.localizedDescription());
    return false;
  }
  nothingButLinks = items->empty();
  if (nothingButLinks) return true;
  const URL installMap = configuration_.oldInstallMapPath();
  logNotice(kInit, "PLAppMigrator: %ld items to migrate", static_cast<long>(items->size()));
  _itemsToMigrate = std::move(items);
  int errorNumber = 0;
  _installMap = readDictionaryFile(installMap, &errorNumber);
  if (!_installMap && isReadFailure(errorNumber)) {
    installMapIsUnreadable_ = true;
    logError(kInit, "PLAppMigrator: Failed to read old install map at %@ : %s", installMap.path(),
             std::strerror(errorNumber));
  } else if (!_installMap) {
    logNotice(kInit, "PLAppMigrator: Old install map not found at %@", installMap.path());
  } else if (const Value groups = _installMap->get("GroupContainers"); groups.asDictionary()) {
    _groupContainerMap = *groups.asDictionary();
  } else {
    logNotice(kInit, "PLAppMigrator: No group container map found in install map");
  }
  return true;
}

void PLAppMigrator::readHarborMap() {
  const URL harborMap = safeHarborMapURL(configuration_);
  if (PLFileManager::defaultManager().itemDoesNotExistAtURL(harborMap)) return;
  _harborMap = readDictionaryFile(harborMap);
  if (!_harborMap) {
    logError(kInit, "PLAppMigrator: Failed to load existing harbor map from %@", harborMap.path());
  }
}

std::string PLAppMigrator::dataClassName() { return "PLAppMigrator"; }

float PLAppMigrator::estimatedDuration() {
  if (!_itemsToMigrate) return 20.0F;
  return 20.0F + 2.25F * static_cast<float>(_itemsToMigrate->size());
}

float PLAppMigrator::migrationProgress() {
  if (!_itemsToMigrate) return 0.5F;
  if (_itemsToMigrate->empty()) return -1.0F;
  return static_cast<float>(_countItemsMigrated.load(std::memory_order_relaxed)) /
         static_cast<float>(_itemsToMigrate->size());
}

}  // namespace pallion

// How the host finds the plug-in.
extern "C" PL_EXPORT const pallion::MigrationPluginDescriptor* PallionMigrationPlugin() {
  static constexpr pallion::MigrationPluginDescriptor kDescriptor = {
      pallion::kMigrationPluginABIVersion,
      []() -> pallion::MigrationPluginBase* { return new pallion::PLAppMigrator; },
      [](pallion::MigrationPluginBase* plugin) { delete plugin; },
  };
  return &kDescriptor;
}
