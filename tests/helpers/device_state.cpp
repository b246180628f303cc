#include "tests/helpers/device_state.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>

#include "file_operations/file_manager.h"
#include "foundation/format.h"
#include "foundation/property_list.h"
#include "platform/bundle.h"
#include "platform/registry.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

namespace fs = std::filesystem;

namespace {

constexpr const char* kMobile = "/private/var/mobile";
constexpr const char* kContainers = "/private/var/palliond/Containers";
const char* const kUserData[] = {"Documents", "Library", "tmp", "Tillbox"};
const char* const kMetadata[] = {"Manifest.plist", "BriscaArtwork", "BriscaMetadata.plist",
                                 "GeoJSON"};

bool isBundleName(const std::string& name) {
  return name.ends_with(".app") || name.ends_with(".vpnplugin");
}

TreeSnapshot withoutTop(TreeSnapshot snapshot) {
  snapshot.erase(".");
  return snapshot;
}

// The installer marks bundles with attributes of its own; everything inside must be as it was.
TreeSnapshot itemAt(const std::string& path) {
  return isBundleName(path) ? withoutTop(snapshotTree(path)) : snapshotTree(path);
}

// Calls `found` with every directory entry at exactly `depth` levels below `directory`.
void entriesBelow(const std::string& directory, int depth,
                  const std::function<void(const fs::path&)>& found) {
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(directory, error)) {
    if (depth == 1) {
      found(entry.path());
    } else if (entry.is_directory(error) && !entry.is_symlink(error)) {
      entriesBelow(entry.path(), depth - 1, found);
    }
  }
}

size_t entriesOf(const std::string& directory) {
  size_t count = 0;
  entriesBelow(directory, 1, [&count](const fs::path&) { ++count; });
  return count;
}

std::unique_ptr<Registry> registryOf(const std::string& root) {
  return Registry::atRoot(URL::fileURL(root, URL::Kind::kDirectory), Registry::Access::kReadOnly);
}

}  // namespace

DeviceState::DeviceState(const std::string& root) {
  for (const auto& entry : fs::directory_iterator(root + kMobile + "/Applications"))
    readContainer(entry.path());
  // Paths in the lists are those inside the device.
  const URL map = URL::fileURL(root + kMobile + "/Library/Caches/com.orlix.pallion.plist");
  const Value groups = readDictionaryFile(map).value_or(Dictionary()).get("GroupContainers");
  for (const auto& [identifier, entry] :
       groups.asDictionary() ? *groups.asDictionary() : Dictionary()) {
    const std::string group = root + *entry.asDictionary()->getString("Container");
    groups_[*identifier.asString()] = withoutTop(snapshotTree(group));
    entriesBelow(group, 1,
                 [this](const fs::path& path) { items_.emplace(path.filename(), itemAt(path)); });
  }
  const URL harborMap = URL::fileURL(root + kMobile + "/Library/Pallion/SafeHarbor.plist");
  const Dictionary harbors = readDictionaryFile(harborMap).value_or(Dictionary());
  for (const auto& [identifier, entry] : harbors) {
    TreeSnapshot& harbor = harbors_[*identifier.asString()];
    harbor = snapshotTree(root + *entry.asDictionary()->getString("HarborPathKey"));
    items_.emplace("", harbor);
  }
}

void DeviceState::readContainer(const std::string& container) {
  Application own;
  for (const char* name : kUserData) {
    if (!exists(container + "/" + name)) continue;
    items_.emplace(name, own.data[name] = itemAt(container + "/" + name));
  }
  for (const char* name : kMetadata) {
    if (exists(container + "/" + name)) own.bundle[name] = itemAt(container + "/" + name);
  }
  for (const char* extension : {".app", ".vpnplugin"}) {
    for (const auto& entry : fs::directory_iterator(container)) {
      if (entry.path().extension() != extension) continue;
      readBundle(entry.path(), own);
      own = {};  // a plug-in beside an application has nothing but its bundle
    }
  }
}

void DeviceState::readBundle(const fs::path& path, Application application) {
  const auto info =
      readDictionaryFile(URL::fileURL((path / "Info.plist").native())).value_or(Dictionary());
  application.type = path.extension() == ".app" ? "App" : "VPNBundle";
  application.placeholder = PLFileManager::defaultManager().bundleAtURLIsPlaceholder(
      URL::fileURL(path.native(), URL::Kind::kDirectory));
  if (application.placeholder) {
    application.bundle.clear();  // only the installer's to make
  } else {
    const std::string name = path.filename();
    items_.emplace(name, application.bundle[name] = itemAt(path));
    const Value groups = info.get(kQXApplicationGroups);
    for (const Value& group : groups.asArray() ? *groups.asArray() : Value::Array())
      if (group.asString()) application.groups.push_back(*group.asString());
  }
  const std::string* identifier = info.getString(kQXBundleIdentifier);
  if (identifier) applications_[*identifier] = std::move(application);
}

std::string DeviceState::missingBelow(const std::string& root, Whole whole) const {
  std::multimap<std::string, TreeSnapshot> standing;
  const auto add = [&standing](const fs::path& path) {
    standing.emplace(path.filename(), itemAt(path));
  };
  const std::string containers = root + kContainers;
  for (const std::string& directory :
       {root + kMobile + "/Applications", root + kMobile + "/Library/GroupContainers",
        containers + "/Data", containers + "/Group", containers + "/Bundle",
        containers + "/Incoming"}) {
    entriesBelow(directory, 2, add);
  }
  for (const std::string& directory : {root + kMobile + "/Applications", containers}) {
    entriesBelow(directory, 4, [&add](const fs::path& path) {
      if (path.parent_path().filename() == "Payload") add(path);
    });
  }
  const auto addHarbor = [&standing](const fs::path& path) {
    standing.emplace("", snapshotTree(path));
  };
  entriesBelow(root + kMobile + "/Library/Pallion/SafeHarbors", 1, addHarbor);
  entriesBelow(root + "/private/var/palliond/Library/Pallion/SafeHarbors", 1, addHarbor);

  std::string missing;
  for (const auto& [name, tree] : items_) {
    if (whole == Whole::kUserData && isBundleName(name)) continue;
    const auto [begin, end] = standing.equal_range(name);
    if (std::none_of(begin, end, [&tree](const auto& item) { return item.second == tree; }))
      missing += "nowhere whole: " + (name.empty() ? "a harbor" : name) + ", " +
                 std::to_string(tree.size()) + " items\n";
  }
  return missing;
}

std::string registryText(const std::string& root) {
  const auto registry = registryOf(root);
  Error error;
  const auto proxies = registry->allProxies(&error);
  const auto harbors = registry->allSafeHarbors(&error);
  if (!proxies || !harbors) return "no registry: " + description(error);
  std::string text;
  for (const BundleProxy& proxy : *proxies) {
    const bool flags[] = {proxy.isPlaceholder(), proxy.isBuiltIn(), proxy.foundBackingBundle(),
                          proxy.bundleURL().has_value(), proxy.dataContainerURL().has_value()};
    text += proxy.bundleIdentifier() + " " + proxy.bundleType() + " version " + proxy.version() +
            " placeholder, built-in, backed, bundle, data:";
    for (const bool flag : flags) text += flag ? " yes" : " no";
    text += "; groups:";
    if (proxy.groupContainerURLs())
      for (const auto& group : *proxy.groupContainerURLs()) text += " " + group.first;
    text += "\n";
  }
  for (const SafeHarborRecord& harbor : *harbors)
    text += format("harbor %@ of type %d\n", harbor.identifier, harbor.containerType);
  return text;
}

std::string DeviceState::differenceAfterMigration(const std::string& root) const {
  std::string out;
  const auto say = [&out](const std::string& line) { out += line + "\n"; };
  const auto compare = [&](const std::string& name, const TreeSnapshot& expected,
                           const TreeSnapshot& actual) {
    if (expected != actual) say(name + ":\n" + difference(expected, actual));
  };
  for (const char* gone : {"/Applications", "/Library/Caches/com.orlix.pallion.plist",
                           "/Library/Pallion/SafeHarbor.plist"}) {
    if (exists(root + kMobile + gone)) say(std::string("still there: ") + gone);
  }

  const auto registry = registryOf(root);
  Error error;
  const auto proxies = registry->allProxies(&error);
  if (!proxies) return out + "no registry: " + description(error) + "\n";
  std::map<std::string, const BundleProxy*> byIdentifier;
  std::map<std::string, std::string> groupPaths;
  size_t dataContainers = 0;
  std::set<std::string> bundleContainers;
  for (const BundleProxy& proxy : *proxies) {
    byIdentifier[proxy.bundleIdentifier()] = &proxy;
    if (proxy.bundleContainerURL()) bundleContainers.insert(proxy.bundleContainerURL()->path());
    dataContainers += proxy.dataContainerURL() ? 1U : 0U;
    if (!proxy.groupContainerURLs()) {
      say("no groups known of " + proxy.bundleIdentifier());
    } else {
      for (const auto& [group, url] : *proxy.groupContainerURLs())
        groupPaths[group] = url.fileSystemRepresentation();
    }
  }

  for (const auto& [identifier, expected] : applications_) {
    const auto found = byIdentifier.find(identifier);
    if (found == byIdentifier.end()) {
      say("not registered: " + identifier);
      continue;
    }
    const BundleProxy& proxy = *found->second;
    if (proxy.bundleType() != expected.type)
      say(identifier + " is registered as " + proxy.bundleType());
    if (proxy.isPlaceholder() != expected.placeholder)
      say(identifier + ": wrongly (no) placeholder");
    const auto compareItems = [&](const Items& items, const std::optional<URL>& container) {
      for (const auto& [name, tree] : items) {
        compare(identifier + " " + name, tree,
                itemAt((container ? container->path() : "no container/") + name));
      }
    };
    compareItems(expected.data, proxy.dataContainerURL());
    compareItems(expected.bundle, proxy.bundleContainerURL());
    for (const std::string& group : expected.groups) {
      if (!groupPaths.contains(group)) say(identifier + ": no container for group " + group);
    }
  }

  for (const auto& [identifier, tree] : groups_) {
    if (!groupPaths.contains(identifier)) continue;  // no application names it
    compare("group " + identifier, tree, withoutTop(snapshotTree(groupPaths[identifier])));
  }
  const auto harbors = registry->allSafeHarbors(&error);
  std::map<std::string, std::string> harborPaths;
  if (harbors) {
    for (const SafeHarborRecord& harbor : *harbors) harborPaths[harbor.identifier] = harbor.path;
  }
  for (const auto& [identifier, tree] : harbors_) {
    compare("harbor " + identifier, tree, snapshotTree(harborPaths[identifier]));
  }

  // Nothing unrecorded.
  const std::pair<const char*, size_t> counts[] = {{"Bundle", bundleContainers.size()},
                                                   {"Data", dataContainers},
                                                   {"Group", groupPaths.size()},
                                                   {"Incoming", 0}};
  for (const auto& [kind, count] : counts) {
    const size_t standing = entriesOf(root + kContainers + "/" + kind);
    if (standing != count) {
      say(std::string(kind) + ": " + std::to_string(standing) + " containers for " +
          std::to_string(count) + " records");
    }
  }
  const size_t harborDirectories =
      entriesOf(root + "/private/var/palliond/Library/Pallion/SafeHarbors");
  if (harborDirectories != harborPaths.size()) say("unrecorded harbors");
  return out;
}

}  // namespace pallion::test
