#include <cerrno>

#include "AppMigrator/app_migrator.h"
#include "AppMigrator/container_info.h"
#include "AppMigrator/migrator_log.h"
#include "file_operations/file_manager.h"
#include "platform/set_aside.h"

namespace pallion {

bool countsAsMissed(const std::string& name) {
  return name != kMigrationMarkerName && name != "com.orlix.pallion.migration_marker" &&
         name != "com.orlix.pallion.placeholder" && !isSetAsideName(name);
}

bool PLAppMigrator::_migrateDataContainerForIdentifier(const std::string& identifier,
                                                       const URL& fromURL, const URL& toURL,
                                                       PendingMoves& moves) {
  constexpr char kFunction[] = "-[PLAppMigrator _migrateDataContainerForIdentifier:fromURL:toURL:]";
  const PLFileManager& files = PLFileManager::defaultManager();
  bool toIsThere = false;  // as a move has shown, so that another one can only miss its source
  for (const std::string& name : configuration_.appUserDataItemNames()) {
    const URL source = fromURL.appending(name, URL::Kind::kDirectory);
    const URL destination = toURL.appending(name, URL::Kind::kDirectory);
    // Most often the old item is a directory and the installer's an empty one.
    if (PendingMoves::moveOntoEmptyDirectory(source, destination)) {
      entryMoved(name);
      toIsThere = true;
      continue;
    }
    if (errno == ENOENT && (toIsThere || files.itemDoesNotExistAtURL(source))) continue;
    if (!files.itemExistsAtURL(source)) {
      if (files.itemDoesNotExistAtURL(source)) continue;
      // Not to be seen just now is not absent, and what is left here may go with the container.
      logError(kFunction, "PLAppMigrator: Failed to move %@ to %@ migrating for %@ : %@", source,
               destination, identifier, Error());
      moves.complete(nullptr);
      return false;
    }
    // The old item replaces the installer's as a whole; a removal that failed shows in the move.
    files.removeItemAtURL(destination, nullptr);
    Error error;
    if (!moves.moveItemIfExistsAtURL(source, destination, &error)) {
      logError(kFunction, "PLAppMigrator: Failed to move %@ to %@ migrating for %@ : %@", source,
               destination, identifier, error);
      moves.complete(nullptr);  // what was moved before stays moved
      return false;
    }
    entryMoved(name);
  }
  return true;
}

bool PLAppMigrator::_containerHasMissedItems(const URL& container, const std::string& identifier) {
  constexpr char kFunction[] = "-[PLAppMigrator _containerHasMissedItems:withIdentifier:]";
  Error error;
  std::optional<std::vector<URL>> items =
      PLFileManager::defaultManager().urlsForItemsInDirectoryAtURL(container, false, &error);
  if (!items) {
    logError(kFunction, "PLAppMigrator: Failed to enumerate container %@ for %@ : %@",
             container.path(), identifier, error);
    return true;
  }
  std::erase_if(*items, [](const URL& item) { return !countsAsMissed(item.lastPathComponent()); });
  if (items->empty()) return false;
  logError(kFunction, "PLAppMigrator: Found missed items in %@ for %@: %@", container.path(),
           identifier, *items);
  return true;
}

}  // namespace pallion
