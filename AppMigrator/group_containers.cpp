#include <algorithm>
#include <filesystem>

#include "AppMigrator/app_migrator.h"
#include "AppMigrator/group_entry.h"
#include "AppMigrator/migrator_log.h"
#include "file_operations/file_manager.h"
#include "platform/app_workspace.h"
#include "platform/set_aside.h"

namespace pallion {

namespace {

// Whether the old container is the new one or lies in it, as a damaged map may have it.
bool liesInside(const URL& oldURL, const URL& newURL) {
  namespace fs = std::filesystem;
  std::error_code failed;
  const fs::path from = fs::canonical(oldURL.fileSystemRepresentation(), failed);
  if (failed) return false;
  const fs::path to = fs::canonical(newURL.fileSystemRepresentation(), failed);
  return !failed && std::mismatch(to.begin(), to.end(), from.begin(), from.end()).first == to.end();
}

}  // namespace

GroupEntry groupEntryFor(const Dictionary& map, const std::string& group,
                         const std::optional<URL>& newURL) {
  using State = GroupEntry::State;
  const Value entry = map.get(group);
  if (!entry.asDictionary()) return {State::kUnknown, {}};
  const std::string* path = entry.asDictionary()->getString("Container");
  if (!path) return {State::kWithoutPath, {}};
  URL from = URL::fileURL(*path, URL::Kind::kDirectory);
  State state = State::kUsable;
  if (!PLFileManager::defaultManager().itemExistsAtURL(from)) {
    state = State::kMissing;
  } else if (newURL && liesInside(from, *newURL)) {
    state = State::kInsideNew;
  }
  return {state, std::move(from)};
}

bool PLAppMigrator::_migrateGroupContainersForIdentifier(const std::string& identifier) {
  constexpr char kFunction[] = "-[PLAppMigrator _migrateGroupContainersForIdentifier:]";
  if (installMapIsUnreadable_) {
    // Its container stays, and with it the map, for a run that can read it.
    logError(kFunction, "PLAppMigrator: Group containers of %@ are not known", identifier);
    return false;
  }
  if (!_groupContainerMap || _groupContainerMap->empty()) return true;
  const PLFileManager& files = PLFileManager::defaultManager();
  const std::optional<BundleProxy> proxy = BundleProxy::bundleProxyForIdentifier(identifier);
  if (!proxy) {
    logError(kFunction, "PLAppMigrator: Failed to get bundle proxy for %@", identifier);
    return false;
  }
  if (!proxy->groupContainerURLs()) {
    logError(kFunction, "PLAppMigrator: Failed to get group container URLs for installed %@",
             identifier);
    return false;
  }
  if (proxy->groupContainerURLs()->empty()) {
    logNotice(kFunction, "PLAppMigrator: No group containers to migrate for %@", identifier);
    return true;
  }

  struct Group {
    std::string identifier;
    URL from;
    URL to;
  };
  std::vector<Group> moved;
  PendingMoves moves;
  for (const auto& [group, newURL] : *proxy->groupContainerURLs()) {
    const auto [state, oldURL] = groupEntryFor(*_groupContainerMap, group, newURL);
    if (state == GroupEntry::State::kUnknown) {
      logNotice(kFunction, "PLAppMigrator: No group container entry to migrate for %@[%@]",
                identifier, group);
      continue;
    }
    if (state == GroupEntry::State::kWithoutPath) {
      logNotice(kFunction, "PLAppMigrator: Failed to get path to group container for %@[%@]",
                identifier, group);
      continue;
    }
    if (state == GroupEntry::State::kMissing) {
      logError(kFunction, "PLAppMigrator: Missing source group container at %@", oldURL.path());
      continue;
    }
    if (state == GroupEntry::State::kInsideNew) {
      logError(kFunction, "PLAppMigrator: Source group container at %@ lies in its destination %@",
               oldURL.path(), newURL.path());
      continue;
    }
    logNotice(kFunction, "PLAppMigrator: Migrating group container %@ at %@ to %@", group, oldURL,
              newURL);
    if (_moveAllItemsInGroupContainerURL(oldURL, newURL, moves))
      moved.push_back({group, oldURL, newURL});
  }

  Error error;
  const bool completed = moves.complete(&error);
  for (const Group& group : moved) {
    if (!completed) {
      logError(kFunction, "PLAppMigrator: Failed to move item %@ to %@ : %@", group.from.path(),
               group.to.path(), error);
      continue;
    }
    _groupContainerMap->remove(group.identifier);
    if (!files.removeItemAtURL(group.from, &error)) {
      logError(kFunction, "PLAppMigrator: Failed to remove old group container at %@ : %@",
               group.from.path(), error);
    }
  }
  return true;
}

bool PLAppMigrator::_moveAllItemsInGroupContainerURL(const URL& fromURL,
                                                     const URL& toGroupContainerURL,
                                                     PendingMoves& moves) {
  constexpr char kFunction[] =
      "-[PLAppMigrator _moveAllItemsInGroupContainerURL:toGroupContainerURL:]";
  const PLFileManager& files = PLFileManager::defaultManager();
  Error error;
  const std::optional<std::vector<URL>> items =
      files.urlsForItemsInDirectoryAtURL(fromURL, false, &error);
  if (!items) {
    logError(kFunction, "PLAppMigrator: Failed to get all urls in source group container %@ : %@",
             fromURL.path(), error);
    return false;
  }
  bool allMoved = true;
  for (const URL& item : *items) {
    const std::string name = item.lastPathComponent();
    if (isSetAsideName(name))
      continue;  // carried over by an interrupted run; goes with the container
    const URL destination = toGroupContainerURL.appending(name, URL::Kind::kFile);
    files.removeItemAtURL(destination, nullptr);
    if (!moves.moveItemIfExistsAtURL(item, destination, &error)) {
      logError(kFunction, "PLAppMigrator: Failed to move item %@ to %@ : %@", item.path(),
               destination.path(), error);
      allMoved = false;
      continue;
    }
    entryMoved(name);
  }
  return allMoved;
}

}  // namespace pallion
