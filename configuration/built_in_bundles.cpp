#include <cerrno>

#include "configuration/global_configuration.h"
#include "file_operations/file_manager.h"
#include "platform/bundle.h"
#include "platform/product_log.h"
#include "support/bundle_metadata.h"

namespace pallion {

namespace {

void addIdentifiers(const std::optional<Dictionary>& map, std::set<std::string>& identifiers) {
  if (!map) return;
  for (const auto& [identifier, info] : *map) identifiers.insert(*identifier.asString());
}

}  // namespace

std::optional<Dictionary> PLGlobalConfiguration::_bundleIDMapForBundlesInDirectory(
    const URL& directory, std::string_view extension) const {
  constexpr char kFunction[] =
      "-[PLGlobalConfiguration _bundleIDMapForBundlesInDirectory:withExtension:]";
  Error error;
  const std::optional<std::vector<URL>> items =
      PLFileManager::defaultManager().urlsForItemsInDirectoryAtURL(directory, true, &error);
  if (!items) {
    if (!error.isPOSIX(ENOENT)) {
      LogWrite(kLogError, kFunction, "Failed to search for apps in %@ : %@", directory, error);
    }
    return std::nullopt;
  }
  const Value keys = Value::set({Value::string(std::string(kQXBundleIdentifier)),
                                 Value::string(std::string(kQXBundleVersion))});
  Dictionary map;
  for (const URL& item : *items) {
    if (item.pathExtension() != extension) continue;
    std::optional<Dictionary> info = PLLoadInfoPlist(item, keys);
    if (!info) {
      LogWrite(kLogDebug, kFunction, "Failed to load Info.plist from bundle %@", item);
      continue;
    }
    const Value identifier = info->get(kQXBundleIdentifier);
    if (!identifier.asString()) {
      LogWrite(kLogDebug, kFunction, "Failed to get QXBundleIdentifier from bundle %@", item);
      continue;
    }
    info->set(kBundleURLKey, Value::string(item.path()));
    map.set(identifier, Value::dictionary(std::move(*info)));
  }
  return map;
}

std::optional<Dictionary> PLGlobalConfiguration::_bundleIDMapForAppsInDirectory(
    const URL& directory) const {
  return _bundleIDMapForBundlesInDirectory(directory, "app");
}

std::optional<Dictionary> PLGlobalConfiguration::systemAppBundleIDToInfoMap() {
  const std::lock_guard lock(lock_);
  if (!systemAppBundleIDToInfoMap_) {
    systemAppBundleIDToInfoMap_ = _bundleIDMapForAppsInDirectory(systemAppsDirectory());
  }
  return systemAppBundleIDToInfoMap_;
}

std::optional<Dictionary> PLGlobalConfiguration::baseweaveAppBundleIDToInfoMap() {
  const std::lock_guard lock(lock_);
  if (!baseweaveAppBundleIDToInfoMap_) {
    baseweaveAppBundleIDToInfoMap_ = _bundleIDMapForAppsInDirectory(baseweaveDirectory());
  }
  return baseweaveAppBundleIDToInfoMap_;
}

std::optional<Dictionary> PLGlobalConfiguration::internalAppBundleIDToInfoMap() {
  const std::lock_guard lock(lock_);
  if (!internalAppBundleIDToInfoMap_) {
    internalAppBundleIDToInfoMap_ = _bundleIDMapForAppsInDirectory(internalAppsDirectory());
  }
  return internalAppBundleIDToInfoMap_;
}

Dictionary PLGlobalConfiguration::diskImageAppBundleIDToInfoMap() {
  Dictionary merged;
  for (const URL& directory : diskImageApplicationsDirectories()) {
    const std::optional<Dictionary> map = _bundleIDMapForAppsInDirectory(directory);
    if (!map) continue;
    for (const auto& [identifier, info] : *map) merged.set(identifier, info);
  }
  return merged;
}

std::set<std::string> PLGlobalConfiguration::builtInApplicationBundleIDs() {
  std::set<std::string> identifiers;
  addIdentifiers(systemAppBundleIDToInfoMap(), identifiers);
  addIdentifiers(internalAppBundleIDToInfoMap(), identifiers);
  addIdentifiers(diskImageAppBundleIDToInfoMap(), identifiers);
  return identifiers;
}

std::set<std::string> PLGlobalConfiguration::builtInFrameworkBundleIDs() {
  const std::lock_guard lock(lock_);
  if (!builtInFrameworkBundleIDs_) {
    builtInFrameworkBundleIDs_.emplace();
    for (const URL& directory : allFrameworksDirectories()) {
      addIdentifiers(_bundleIDMapForBundlesInDirectory(directory, "framework"),
                     *builtInFrameworkBundleIDs_);
    }
  }
  return *builtInFrameworkBundleIDs_;
}

void PLGlobalConfiguration::reScanSystemApps() {
  const std::lock_guard lock(lock_);
  systemAppBundleIDToInfoMap_.reset();
  builtInFrameworkBundleIDs_.reset();
}

void PLGlobalConfiguration::reScanBaseweaveApps() {
  const std::lock_guard lock(lock_);
  baseweaveAppBundleIDToInfoMap_.reset();
}

void PLGlobalConfiguration::reScanInternalApps() {
  const std::lock_guard lock(lock_);
  internalAppBundleIDToInfoMap_.reset();
  builtInFrameworkBundleIDs_.reset();
}

}  // namespace pallion
