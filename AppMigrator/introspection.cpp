#include <cerrno>
#include <cstring>
#include <sys/stat.h>

#include "AppMigrator/app_migrator.h"
#include "AppMigrator/container_info.h"
#include "AppMigrator/container_verdict.h"
#include "AppMigrator/migrator_log.h"
#include "file_operations/file_manager.h"
#include "foundation/property_list.h"
#include "platform/set_aside.h"

namespace pallion {

namespace {

constexpr char kIntrospectFunction[] = "-[PLAppMigrator _introspectContainer:orderResultEarly:]";

ContainerVerdict verdict(ContainerFate fate, std::string reason) {
  ContainerVerdict result;
  result.fate = fate;
  result.reason = std::move(reason);
  return result;
}

ContainerVerdict leftAlone(const URL& entry, const char* because) {
  return verdict(ContainerFate::kLeftAlone, entry.lastPathComponent() + " " + because);
}

}  // namespace

ContainerListing listContainer(const URL& container) {
  ContainerListing listing;
  Error error;
  listing.entries =
      PLFileManager::defaultManager().urlsForItemsInDirectoryAtURL(container, false, &error);
  if (listing.entries) {
    std::erase_if(*listing.entries, [&](const URL& entry) {
      if (!isSetAsideName(entry.lastPathComponent())) return false;
      listing.setAside.push_back(entry);
      return true;
    });
    return listing;
  }
  if (error.isPOSIX(ENOTDIR)) {
    logError(kIntrospectFunction, "PLAppMigrator: Found regular file at %@ ; removing",
             container.path());
    listing.verdict = verdict(ContainerFate::kRemoved, "is no directory");
  } else if (error.isPOSIX(ENOENT)) {
    logNotice(
        kIntrospectFunction,
        "PLAppMigrator: Got ENOENT when introspecting %@ ; ignoring (likely raced with palliond)",
        container.path());
    listing.verdict = verdict(ContainerFate::kGone, "is gone");
  } else {
    logError(kIntrospectFunction, "PLAppMigrator: Failed to get URLs in container %@ : %@",
             container.path(), error);
    listing.verdict = verdict(ContainerFate::kLeftAlone,
                              "can't be listed: " + std::string(error.localizedDescription()));
  }
  return listing;
}

std::optional<Dictionary> PLAppMigrator::_introspectContainer(const URL& container,
                                                              bool& orderResultEarly) {
  const PLFileManager& files = PLFileManager::defaultManager();
  ContainerListing listing = listContainer(container);
  for (const URL& item : listing.setAside) files.removeItemAtURL(item, nullptr);
  ContainerVerdict verdict =
      listing.entries ? classifyContainer(container, *listing.entries) : std::move(listing.verdict);
  if (verdict.fate == ContainerFate::kRemoved) files.removeItemAtURL(container, nullptr);
  orderResultEarly = verdict.orderEarly;
  return std::move(verdict.info);
}

ContainerVerdict PLAppMigrator::classifyContainer(const URL& container,
                                                  const std::vector<URL>& entries) {
  ContainerVerdict result;
  // None once a marker was met that can't be used: then nothing is recorded any more.
  std::optional<Dictionary> info = Dictionary{{kContainerPathKey, Value::string(container.path())}};
  std::optional<URL> application;
  std::optional<URL> vpnPlugin;
  bool unreadable = false;
  const auto record = [&](const URL& bundle, std::string_view type, const std::string& identifier) {
    result.orderEarly = type == kContainerTypeApp;
    if (!info) return;
    info->set(kBundlePathKey, Value::string(bundle.path()));
    info->set(kContainerTypeKey, Value::string(std::string(type)));
    info->set(kBundleIdentifierKey, Value::string(identifier));
  };

  for (const URL& entry : entries) {
    struct stat status {};
    if (lstat(entry.fileSystemRepresentation(), &status) != 0) {
      const char* const cause = std::strerror(errno);
      logError(kIntrospectFunction, "PLAppMigrator: Failed to stat path %s : %s",
               entry.fileSystemRepresentation(), cause);
      return leftAlone(entry, cause);
    }
    const bool isLink = S_ISLNK(status.st_mode);
    const std::string extension = entry.pathExtension();
    std::string identifier;

    if (extension == "app") {
      if (isLink) {
        logError(kIntrospectFunction, "PLAppMigrator: Skipping container with app symlink at %@",
                 entry.path());
        return leftAlone(entry, "is a symbolic link");
      }
      logNotice(kIntrospectFunction, "PLAppMigrator: Found app %@", entry.path());
      const IdentifierState state = _bundleIdentifierForBundle(entry, identifier);
      if (state != IdentifierState::kFound) {
        logError(kIntrospectFunction, "PLAppMigrator: Could not get identifier for bundle at %@",
                 entry.path());
        unreadable |= state == IdentifierState::kUnreadable;
        continue;
      }
      application = entry;
      record(entry, kContainerTypeApp, identifier);
    } else if (extension == "vpnplugin") {
      logNotice(kIntrospectFunction, "PLAppMigrator: Found vpn plugin %@", entry.path());
      if (isLink) {
        logError(kIntrospectFunction,
                 "PLAppMigrator: VPN plugin was symlink; skipping container %@", entry.path());
        return leftAlone(entry, "is a symbolic link");
      }
      const IdentifierState state = _bundleIdentifierForBundle(entry, identifier);
      if (state == IdentifierState::kUnreadable) {
        logError(kIntrospectFunction, "PLAppMigrator: Could not get identifier for bundle at %@",
                 entry.path());
        unreadable = true;
      }
      if (state != IdentifierState::kFound) continue;
      vpnPlugin = entry;
      if (!application) record(entry, kContainerTypeVPNBundle, identifier);
    } else if (entry.lastPathComponent() == kMigrationMarkerName) {
      logNotice(kIntrospectFunction, "PLAppMigrator: Found migration marker %@", entry.path());
      if (isLink) {
        logError(kIntrospectFunction,
                 "PLAppMigrator: Migration marker was symlink; skipping container %@",
                 entry.path());
        return leftAlone(entry, "is a symbolic link");
      }
      bool unreadableMarker = false;
      info = _loadAndValidateMigrationMarkerAtURL(entry, unreadableMarker);
      if (info) {
        result.fate = ContainerFate::kMigrated;
        result.orderEarly = *info->getString(kContainerTypeKey) == kContainerTypeApp;
        result.resumed = true;
        result.info = std::move(info);
        return result;
      }
      logError(kIntrospectFunction, "PLAppMigrator: Failed to load migration marker file from %@",
               entry);
      unreadable |= unreadableMarker;
    }
  }

  // What is there but can't be read just now is not absent.
  if (unreadable) return verdict(ContainerFate::kLeftAlone, "holds what can't be read just now");
  if (!application && !vpnPlugin) {
    logError(kIntrospectFunction,
             "PLAppMigrator: No app or vpn bundle found in container %@ ; removing it",
             container.path());
    return verdict(ContainerFate::kRemoved, "holds no bundle with an identifier");
  }
  if (!info)
    return verdict(ContainerFate::kLeftAlone, "holds a migration marker that can't be used");
  if (application && vpnPlugin) {
    info->set(kSecondBundlePathKey, Value::string(vpnPlugin->path()));
  }
  result.fate = ContainerFate::kMigrated;
  result.info = std::move(info);
  return result;
}

std::optional<Dictionary> PLAppMigrator::_loadAndValidateMigrationMarkerAtURL(const URL& marker,
                                                                              bool& unreadable) {
  constexpr char kFunction[] = "-[PLAppMigrator _loadAndValidateMigrationMarkerAtURL:]";
  int errorNumber = 0;
  std::optional<Dictionary> info = readDictionaryFile(marker, &errorNumber);
  if (!info) {
    unreadable = isReadFailure(errorNumber);
    logError(kFunction, "PLAppMigrator: Failed to load migration marker file from %@", marker);
    return std::nullopt;
  }
  if (!info->getString(kBundlePathKey)) {
    logError(kFunction, "PLAppMigrator: Failed to get bundle path from migration marker file %@",
             marker.path());
    return std::nullopt;
  }
  if (!info->getString(kContainerTypeKey)) {
    logError(kFunction, "PLAppMigrator: Failed to get container type from migration marker file %@",
             marker.path());
    return std::nullopt;
  }
  if (!info->getString(kContainerPathKey)) {
    logError(kFunction, "PLAppMigrator: Failed to get container path from migration marker file %@",
             marker.path());
    return std::nullopt;
  }
  if (!info->getString(kBundleIdentifierKey)) {
    logError(kFunction,
             "PLAppMigrator: Failed to get container bundle ID from migration marker file %@",
             marker.path());
    return std::nullopt;
  }
  const Value second = info->get(kSecondBundlePathKey);
  if (second && !second.asString()) {
    logError(kFunction, "PLAppMigrator: Second bundle path was not a string: %@", second);
    return std::nullopt;
  }
  return info;
}

PLAppMigrator::IdentifierState PLAppMigrator::_bundleIdentifierForBundle(const URL& bundle,
                                                                         std::string& identifier) {
  const std::unique_ptr<QXBundle> object = QXBundle::bundleWithURL(bundle);
  if (!object) return IdentifierState::kNone;
  std::optional<std::string> found = object->identifier();
  if (found) {
    identifier = std::move(*found);
    return IdentifierState::kFound;
  }
  return object->infoState() == QXBundle::InfoState::kUnreadable ? IdentifierState::kUnreadable
                                                                 : IdentifierState::kNone;
}

}  // namespace pallion
