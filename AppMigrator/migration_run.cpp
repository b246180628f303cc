#include <cerrno>
#include <set>

#include "AppMigrator/app_migrator.h"
#include "AppMigrator/container_info.h"
#include "AppMigrator/migrator_log.h"
#include "AppMigrator/run_order.h"
#include "file_operations/file_manager.h"
#include "platform/installer_service.h"

namespace pallion {

namespace {

constexpr char kRunFunction[] = "-[PLAppMigrator performMigration]";
}  // namespace

bool PLAppMigrator::performMigration() {
  const bool containersMigrated = migrateContainers();
  const bool harborsMigrated = _migrateSafeHarbors();
  bool result = containersMigrated && harborsMigrated;

  const Dictionary options = {
      {kPLUpdateSystemAppDataContainerDataProtection, Value::boolean(true)}};
  if (PallionUpdateContainerDataProtectionForMigratorOnly(options) == 0) {
    logError(kRunFunction, "PLAppMigrator: Failed to update container data protection");
    result = false;
  }
  result = removeOldLayoutIfEmpty(result);
  if (!result) {
    logError(
        kRunFunction,
        "PLAppMigrator: Returning migration failed. Please include the contents of "
        "/var/mobile/Library/Logs/Pallion and /var/Mobile/Library/Logs/Shiftwell in a bug report.");
  }
  return result;
}

// Looks at every item of the inventory first, then migrates what was found, application containers
// first.
bool PLAppMigrator::migrateContainers() {
  if (!_itemsToMigrate) return true;
  const auto countItem = [this] { _countItemsMigrated.fetch_add(1, std::memory_order_relaxed); };

  ContainerQueue results;
  for (const URL& item : *_itemsToMigrate) {
    logNotice(kRunFunction, "PLAppMigrator: Introspecting %@", item.path());
    if (isApplicationsLocationNote(item)) {
      PLFileManager::defaultManager().removeItemAtURL(item, nullptr);
      countItem();
      continue;
    }
    bool early = false;
    std::optional<Dictionary> info = _introspectContainer(item, early);
    if (info) {
      enqueueContainer(results, {item, std::move(*info)}, early);
    } else {
      countItem();
    }
  }

  bool allMigrated = true;
  std::set<std::string> identifiers;  // of the containers that were begun
  for (const QueuedContainer& queued : results) {
    const auto& [container, info] = queued;
    const Value identifier = info.get(kBundleIdentifierKey);
    const Value path = info.get(kBundlePathKey);
    logNotice(kRunFunction, "PLAppMigrator: Migrating %@ at %@", identifier, path);
    itemStarted(*identifier.asString(), container.path());
    bool migrated = false;
    const Objection objection = objectionTo(queued, identifiers);
    if (objection == Objection::kSpeaksOfAnotherPlace) {
      logError(kRunFunction, "PLAppMigrator: Migration marker of %@ speaks of another place",
               container.path());
    } else if (objection == Objection::kAnotherOfItWasBegun) {
      logError(kRunFunction,
               "PLAppMigrator: Another container of %@ was migrated already; skipping %@",
               identifier, container.path());
    } else {
      migrated = _migrateContainerWithInfo(info);
    }
    if (!migrated) {
      logError(kRunFunction, "PLAppMigrator: Migration of %@ at %@ failed", identifier, path);
      allMigrated = false;
    }
    itemFinished(migrated);
    countItem();
  }
  return allMigrated;
}

// The last look at the old layout: it goes only when nothing is left in it. Answers the run's
// result.
bool PLAppMigrator::removeOldLayoutIfEmpty(bool result) {
  const PLFileManager& files = PLFileManager::defaultManager();
  const URL containers = configuration_.oldContainerPath();
  const URL installMap = configuration_.oldInstallMapPath();
  Error error;
  const std::optional<std::vector<URL>> items =
      files.urlsForItemsInDirectoryAtURL(containers, false, &error);
  if (!items) {
    if (!error.isPOSIX(ENOENT)) {
      logError(kRunFunction,
               "PLAppMigrator: Failed to determine if any items were remaining to migrate: %@",
               error);
    }
    return result;
  }
  if (!items->empty()) {
    logError(kRunFunction, "PLAppMigrator: Not removing %@ because %lu items remain unmigrated.",
             installMap.path(), items->size());
    return false;
  }
  for (const URL& item : {containers, installMap}) {
    if (!files.removeItemAtURL(item, &error)) {
      logError(kRunFunction, "PLAppMigrator: Failed to remove %@ : %@", item.path(), error);
    }
  }
  return result;
}

}  // namespace pallion
