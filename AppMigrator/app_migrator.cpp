#include "AppMigrator/app_migrator.h"

#include <cstring>

#include "AppMigrator/migrator_log.h"
#include "file_operations/file_manager.h"
#include "foundation/error.h"
#include "foundation/export.h"
#include "foundation/file_contents.h"
#include "foundation/property_list.h"

namespace pallion {

PLAppMigrator::PLAppMigrator(const PLGlobalConfiguration& configuration)
    : configuration_(configuration) {}

bool PLAppMigrator::init() {
  constexpr char kFunction[] = "-[PLAppMigrator init]";
  if (!MigrationPluginBase::init()) return false;
  const PLFileManager& files = PLFileManager::defaultManager();

  if (const URL containers = configuration_.oldContainerPath();
      !files.itemDoesNotExistAtURL(containers)) {
    Error error;
    std::optional<std::vector<URL>> items =
        files.urlsForItemsInDirectoryAtURL(containers, true, &error);
    if (!items) {
      logError(kFunction, "PLAppMigrator: Failed to get items at %@ : %@", containers, error);
      return false;
    }
    const URL installMap = configuration_.oldInstallMapPath();
    if (!items->empty()) {
      logNotice(kFunction, "PLAppMigrator: %ld items to migrate", static_cast<long>(items->size()));
      _itemsToMigrate = std::move(items);
      int errorNumber = 0;
      _installMap = readDictionaryFile(installMap, &errorNumber);
      if (!_installMap && isReadFailure(errorNumber)) {
        installMapIsUnreadable_ = true;
        logError(kFunction, "PLAppMigrator: Failed to read old install map at %@ : %s",
                 installMap.path(), std::strerror(errorNumber));
      } else if (!_installMap) {
        logNotice(kFunction, "PLAppMigrator: Old install map not found at %@", installMap.path());
      } else if (const Value groups = _installMap->get("GroupContainers"); groups.asDictionary()) {
        _groupContainerMap = *groups.asDictionary();
      } else {
        logNotice(kFunction, "PLAppMigrator: No group container map found in install map");
      }
    } else {
      if (!files.removeItemAtURL(containers, nullptr)) {
        logError(kFunction, "PLAppMigrator: Failed to remove %@", containers.path());
      }
      if (!files.removeItemAtURL(installMap, &error)) {
        logError(kFunction, "PLAppMigrator: Failed to remove %@ : %@", installMap.path(), error);
      }
    }
  }

  if (const URL harborMap = safeHarborMapURL(); !files.itemDoesNotExistAtURL(harborMap)) {
    _harborMap = readDictionaryFile(harborMap);
    if (!_harborMap) {
      logError(kFunction, "PLAppMigrator: Failed to load existing harbor map from %@",
               harborMap.path());
    }
  }
  return true;
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
