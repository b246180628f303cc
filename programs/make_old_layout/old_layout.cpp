#include "programs/make_old_layout/old_layout.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "programs/make_old_layout/awkward_cases.h"
#include "programs/make_old_layout/bundles.h"
#include "programs/make_old_layout/places.h"
#include "programs/make_old_layout/tree_writer.h"
#include "programs/make_old_layout/user_data.h"

namespace pallion {

namespace {

struct Name {
  const char* display;
  const char* identifier;  // the last part
};

constexpr Name kNames[] = {
    {"Notes", "notes"},
    {"Timetable", "timetable"},
    {"Ledger", "ledger"},
    {"Einkaufsliste", "list"},
    {"Größen", "sizes"},
    {"Météo", "weather"},
    {"日記", "diary"},
    {"Trail Maps", "trails"},
    {"Recipes & More", "recipes"},
    {"Шахматы", "chess"},
    {"Piano", "piano"},
    {"Voice <Memo>", "memo"},
    {"Birdsong", "birdsong"},
    {"Tide Clock", "tides"},
    {"Flashcards", "flashcards"},
    {"Garden Planner", "garden"},
    {"Phrasebook", "phrasebook"},
    {"Sketch!", "sketch"},
};

std::string numbered(const std::string& text, const char* separator, uint64_t round) {
  return round == 0 ? text : text + separator + std::to_string(round + 1);
}

Bundle nameBundle(uint64_t index) {
  const Name& name = kNames[index % std::size(kNames)];
  const uint64_t round = index / std::size(kNames);
  Bundle bundle{numbered(name.display, " ", round),
                numbered(std::string("com.example.") + name.identifier, "", round)};
  bundle.version = std::to_string(1 + index % 4) + "." + std::to_string(index % 7);
  return bundle;
}

std::string groupIdentifier(uint64_t index) {
  return "group.com.example.shared" + std::to_string(index + 1);
}

// Each group belongs to two applications, and the first application has two groups.
std::vector<std::string> groupsOfApplication(uint64_t index, const LayoutOptions& options) {
  std::vector<std::string> groups;
  if (index < 2 * options.groups) groups.push_back(groupIdentifier(index % options.groups));
  if (index == 0 && options.groups > 1) groups.push_back(groupIdentifier(1));
  return groups;
}

// A third of the applications have a VPN plug-in beside them.
bool hasPlugin(uint64_t index) { return index % 3 == 1; }
// Two thirds came from the store.
bool isFromStore(uint64_t index) { return index % 3 != 2; }

void writeApplicationContainers(Directory& containers, const LayoutOptions& options,
                                Pictures& pictures, Dictionary& installed) {
  for (uint64_t index = 0; index < options.applications; ++index) {
    const std::string uuid = containers.writer().random.uuid();
    Directory container = containers.directory(uuid);
    Bundle bundle = nameBundle(index);
    bundle.groups = groupsOfApplication(index, options);
    if (index + options.placeholders >= options.applications) {
      writePlaceholder(container, bundle);
    } else {
      writeApplication(container, bundle, pictures);
      if (hasPlugin(index)) {
        writePlugin(container, {bundle.name + " Tunnel", bundle.identifier + ".tunnel"});
      }
      if (isFromStore(index)) writeStoreMetadata(container, bundle, index, pictures);
    }
    writeUserData(container, bundle.identifier, index, options.files, options.fileSize);
    installed.set(bundle.identifier,
                  Value::dictionary({{"Container", Value::string(containerPath(uuid))}}));
  }
}

void writePluginContainers(Directory& containers, const LayoutOptions& options) {
  for (uint64_t index = 0; index < options.vpnPlugins; ++index) {
    Directory container = containers.directory(containers.writer().random.uuid());
    const Bundle plugin{numbered("Safe Passage", " ", index),
                        numbered("com.example.passage", "", index)};
    writePlugin(container, plugin);
    writeUserData(container, plugin.identifier, index + 1, options.files, options.fileSize);
  }
}

Dictionary writeGroups(Directory& library, const LayoutOptions& options) {
  Dictionary map;
  if (options.groups == 0) return map;
  Directory directory = library.directory("GroupContainers");
  for (uint64_t index = 0; index < options.groups; ++index) {
    const std::string uuid = directory.writer().random.uuid();
    Directory group = directory.directory(uuid);
    writeSharedData(group, options.fileSize);
    map.set(groupIdentifier(index),
            Value::dictionary({{"Container", Value::string(groupPath(uuid))}}));
  }
  return map;
}

Dictionary writeHarbors(Directory& data, const LayoutOptions& options) {
  Dictionary map;
  if (options.harbors == 0) return map;
  Directory directory = data.directory("SafeHarbors");
  for (uint64_t index = 0; index < options.harbors; ++index) {
    const std::string identifier = "com.example.archived" + std::to_string(index + 1);
    Directory harbor = directory.directory(identifier);
    writeSharedData(harbor, options.fileSize);
    map.set(identifier,
            Value::dictionary({{"HarborPathKey", Value::string(harborPath(identifier))}}));
  }
  return map;
}

// What a migrated device already has of these stays as it is.
void writeBuiltIn(Directory& top, Pictures& pictures) {
  Directory applications = top.directory("Applications");
  for (const Bundle& bundle : {Bundle{"Clock", kBuiltInIdentifier, kBuiltInVersion},
                               Bundle{"Settings", "com.orlix.settings", "5.0"}}) {
    if (!applications.has(bundle.name + ".app")) writeApplication(applications, bundle, pictures);
  }
}

}  // namespace

int canHoldLayout(const std::string& root) {
  DIR* containers = opendir((root + kContainersDirectory).c_str());
  if (!containers) return errno == ENOENT ? 0 : errno;
  int result = 0;
  errno = 0;
  while (const dirent* entry = readdir(containers)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") {
      result = ENOTEMPTY;
      break;
    }
  }
  if (result == 0) result = errno;
  closedir(containers);
  return result;
}

LayoutSummary writeOldLayout(const LayoutOptions& options) {
  umask(0);
  TreeWriter writer(options.seed);
  LayoutSummary summary;
  {
    Pictures pictures;
    Directory top = Directory::top(writer, options.root);
    if (!top.has("var")) top.symbolicLink("var", "private/var");
    writeBuiltIn(top, pictures);
    Directory system = top.directory("private").directory("var");
    Directory mobile = system.directory("mobile", 0755, Owner::kUser);
    Directory containers = mobile.directory("Applications");
    Directory library = mobile.directory("Library");
    Directory caches = library.directory("Caches");
    Directory data = library.directory("Pallion");

    Dictionary installed;
    writeApplicationContainers(containers, options, pictures, installed);
    writePluginContainers(containers, options);
    Dictionary groups = writeGroups(library, options);
    Dictionary harbors = writeHarbors(data, options);
    if (options.mess)
      summary.awkwardCases = writeAwkwardCases(containers, groups, harbors, pictures);

    writeList(
        caches, "com.orlix.pallion.plist",
        {{"GroupContainers", Value::dictionary(groups)}, {"User", Value::dictionary(installed)}},
        ListFormat::kBinary);
    // Binary, because among the awkward cases is a key that only this format can hold.
    if (!harbors.empty()) writeList(data, "SafeHarbor.plist", harbors, ListFormat::kBinary);
  }
  summary.files = writer.files;
  summary.bytes = writer.bytes;
  summary.errorNumber = writer.errorNumber();
  summary.failedPath = writer.failedPath();
  return summary;
}

}  // namespace pallion
