#include "AppMigrator/app_migrator.h"
#include "AppMigrator/harbor_entry.h"
#include "AppMigrator/migrator_log.h"
#include "file_operations/file_manager.h"
#include "foundation/error.h"
#include "platform/installer_service.h"

namespace pallion {

namespace {

// The installer service's number for a container of an application's data.
constexpr int kHarborContainerType = 2;

}  // namespace

URL safeHarborMapURL(const PLGlobalConfiguration& configuration) {
  return configuration.oldDataDirectoryPath().appending("SafeHarbor.plist", URL::Kind::kFile);
}

HarborEntry harborEntryOf(const Value& key, const Value& entry) {
  using State = HarborEntry::State;
  const std::string* identifier = key.asString();
  if (!identifier) return {State::kKeyIsNoString, nullptr, nullptr};
  if (!entry.asDictionary()) return {State::kNoDictionary, identifier, nullptr};
  const std::string* path = entry.asDictionary()->getString("HarborPathKey");
  return {path ? State::kUsable : State::kWithoutPath, identifier, path};
}

bool PLAppMigrator::_migrateSafeHarbors() {
  constexpr char kFunction[] = "-[PLAppMigrator _migrateSafeHarbors]";
  if (!_harborMap) return true;
  bool result = true;
  for (const auto& [key, entry] : *_harborMap) {
    const auto [state, identifier, path] = harborEntryOf(key, entry);
    if (state == HarborEntry::State::kKeyIsNoString) {
      logError(kFunction, "PLAppMigrator: Identifier in harbor map was not string; skipping");
      continue;
    }
    if (state == HarborEntry::State::kNoDictionary) {
      logError(kFunction, "PLAppMigrator: Failed to get harbor info for identifier %@", key);
      continue;
    }
    if (state == HarborEntry::State::kWithoutPath) {
      logError(kFunction, "PLAppMigrator: Failed to get harbor path from harbor entry for %@ : %@",
               key, entry);
      continue;
    }
    logNotice(kFunction, "PLAppMigrator: Migrating safe harbor for %@ at %@", key, *path);
    if (PallionRegisterSafeHarborForContainerType(*path, *identifier, kHarborContainerType,
                                                  nullptr) == 0) {
      logError(kFunction,
               "PLAppMigrator: Failed to migrate safe harbor for identifier %@ at %@ : %@", key,
               *path, Error());
      result = false;
    }
  }
  if (result)
    PLFileManager::defaultManager().removeItemAtURL(safeHarborMapURL(configuration_), nullptr);
  return result;
}

}  // namespace pallion
