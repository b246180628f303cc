#include "programs/migration_host/user_data_sources.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <sys/stat.h>

#include "AppMigrator/container_info.h"
#include "foundation/file_contents.h"
#include "foundation/property_list.h"
#include "platform/bundle.h"
#include "platform/registry_containers.h"
#include "platform/set_aside.h"
#include "platform/tree_walk.h"

namespace pallion::host {

namespace {

using Names = std::vector<std::string>;

std::string because(const std::string& path, int errorNumber) {
  return path + ": " + std::strerror(errorNumber);
}

// Sorted names in a directory; none with a problem, but for a directory that is not there.
std::optional<Names> listed(const std::string& path, Names& problems) {
  std::optional<Names> names = namesInDirectory(path);
  if (names) {
    std::sort(names->begin(), names->end());
  } else if (errno != ENOENT) {
    problems.push_back(because(path, errno));
  }
  return names;
}

bool isDirectory(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

uint64_t entriesBelow(const std::string& path) {
  TreeWalk walk(TreeWalk::Order::kByName);
  if (!walk.open(path)) return 0;
  uint64_t count = 0;
  while (const TreeWalkEntry* entry = walk.next()) {
    count += entry->kind != TreeWalkEntry::Kind::kDirectoryAfter &&
             entry->kind != TreeWalkEntry::Kind::kError;
  }
  return count;
}

class OldLayout {
 public:
  explicit OldLayout(const PLGlobalConfiguration& configuration) : configuration_(configuration) {}

  UserDataSources look() {
    lookAtContainers();
    lookAtGroups();
    lookAtHarbors();
    return std::move(found_);
  }

 private:
  void leaveOut(const std::string& path, std::string reason) {
    found_.notCovered.push_back({path, std::move(reason), entriesBelow(path)});
  }

  void lookAtContainers() {
    const std::string containers = configuration_.oldContainerPath().fileSystemRepresentation();
    const std::optional<Names> names = listed(containers, found_.problems);
    if (!names) return;
    for (const std::string& name : *names) {
      const std::string path = containers + "/" + name;
      if (!isDirectory(path)) {
        leaveOut(path, "is no container");
        continue;
      }
      const std::optional<Names> items = listed(path, found_.problems);
      if (!items) continue;
      const std::optional<std::string> identifier = identifierOf(path, *items);
      if (!identifier) {
        leaveOut(path, "holds no application");
        continue;
      }
      found_.sources.push_back({UserDataKind::kApp, *identifier, path});
      for (const std::string& item : *items) {
        if (!isKnown(item)) leaveOut(path + "/" + item, "is no item of an application");
      }
    }
  }

  // The marker's word counts most, then an application's, then a plug-in's.
  std::optional<std::string> identifierOf(const std::string& container, const Names& items) {
    std::optional<std::string> application;
    std::optional<std::string> plugin;
    for (const std::string& item : items) {
      const URL url = URL::fileURL(container + "/" + item, URL::Kind::kDirectory);
      const std::string extension = url.pathExtension();
      if (item == kMigrationMarkerName) {
        const std::optional<Dictionary> marker =
            dictionaryAt(container + "/" + item, Damage::kTolerated);
        const std::string* identifier = marker ? marker->getString(kBundleIdentifierKey) : nullptr;
        if (identifier) return *identifier;
      } else if (extension == "app" || extension == "vpnplugin") {
        const std::unique_ptr<QXBundle> bundle = QXBundle::bundleWithURL(url);
        std::optional<std::string> identifier = bundle ? bundle->identifier() : std::nullopt;
        if (bundle && bundle->infoState() == QXBundle::InfoState::kUnreadable) {
          found_.problems.push_back(
              because(url.fileSystemRepresentation(), bundle->infoErrorNumber()));
        }
        if (identifier) (extension == "app" ? application : plugin) = std::move(identifier);
      }
    }
    return application ? application : plugin;
  }

  // What a container may hold besides, and what belongs to the migration itself.
  [[nodiscard]] bool isKnown(const std::string& item) const {
    const auto among = [&item](const Names& names) {
      return std::find(names.begin(), names.end(), item) != names.end();
    };
    const std::string extension = URL::fileURL("/" + item).pathExtension();
    return extension == "app" || extension == "vpnplugin" || item == kMigrationMarkerName ||
           isSetAsideName(item) || among(configuration_.appUserDataItemNames()) ||
           among(configuration_.appBundleMetadataItemNames());
  }

  void lookAtGroups() {
    const std::optional<Dictionary> map =
        dictionaryAt(configuration_.oldInstallMapPath().fileSystemRepresentation(), Damage::kTold);
    const Value groups = map ? map->get("GroupContainers") : Value();
    if (groups.asDictionary()) lookAtMap(*groups.asDictionary(), UserDataKind::kGroup, "Container");
  }

  void lookAtHarbors() {
    const URL url =
        configuration_.oldDataDirectoryPath().appending("SafeHarbor.plist", URL::Kind::kFile);
    const std::optional<Dictionary> map =
        dictionaryAt(url.fileSystemRepresentation(), Damage::kTold);
    if (map) lookAtMap(*map, UserDataKind::kHarbor, "HarborPathKey");
  }

  // A map from identifiers to dictionaries that hold a path.
  void lookAtMap(const Dictionary& map, UserDataKind kind, std::string_view pathKey) {
    const size_t begin = found_.sources.size();
    for (const auto& [key, entry] : map) {
      const std::string* path =
          entry.asDictionary() ? entry.asDictionary()->getString(pathKey) : nullptr;
      if (!key.asString() || !path) continue;  // speaks of no place
      const std::string place = URL::fileURL(*path).fileSystemRepresentation();
      if (isDirectory(place)) found_.sources.push_back({kind, *key.asString(), place});
    }
    std::sort(
        found_.sources.begin() + static_cast<ptrdiff_t>(begin), found_.sources.end(),
        [](const auto& left, const auto& right) { return left.identifier < right.identifier; });
  }

  enum class Damage { kTolerated, kTold };
  std::optional<Dictionary> dictionaryAt(const std::string& path, Damage damage) {
    int errorNumber = 0;
    std::optional<Dictionary> read =
        readDictionaryFile(URL::fileURL(path, URL::Kind::kFile), &errorNumber);
    if (!read && isReadFailure(errorNumber)) {
      found_.problems.push_back(because(path, errorNumber));
    } else if (!read && errorNumber != ENOENT && damage == Damage::kTold) {
      found_.problems.push_back(path + ": no property list");
    }
    return read;
  }

  const PLGlobalConfiguration& configuration_;
  UserDataSources found_;
};

}  // namespace

UserDataSources findUserData(const PLGlobalConfiguration& configuration) {
  return OldLayout(configuration).look();
}

std::vector<UserDataItem> itemsOf(const UserDataSource& source,
                                  const PLGlobalConfiguration& configuration,
                                  std::vector<std::string>& problems) {
  std::vector<UserDataItem> items;
  const auto add = [&](const std::string& name, const std::string& path) {
    items.push_back({source.kind, source.identifier, name, path});
  };
  if (source.kind == UserDataKind::kHarbor) {
    add(source.path.substr(source.path.rfind('/') + 1), source.path);
    return items;
  }
  const Names wanted = configuration.appUserDataItemNames();
  const std::optional<Names> names = listed(source.path, problems);
  if (!names) return items;
  for (const std::string& name : *names) {
    const bool isApp = source.kind == UserDataKind::kApp;
    const bool isItem = isApp ? std::find(wanted.begin(), wanted.end(), name) != wanted.end()
                              : !isSetAsideName(name);
    if (isItem) add(name, source.path + "/" + name);
  }
  return items;
}

}  // namespace pallion::host
