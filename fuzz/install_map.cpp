#include <filesystem>
#include <set>

#include "file_operations/path_strings.h"
#include "foundation/property_list.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/private_operations.h"
#include "tests/helpers/fake_installer.h"
#include "tests/helpers/temporary_root.h"

// The input as the old install map, of which the group containers of one application are migrated.

namespace pallion::fuzz {

namespace {

constexpr char kApplication[] = "com.example.foo";
constexpr const char* kInstallMap = "private/var/mobile/Library/Caches/com.orlix.pallion.plist";

// The map with its absolute paths meant below `root`, since migrating empties the directories that
// it names. Nothing for one that would lead out again.
std::optional<std::string> confined(std::string_view input, const std::string& root) {
  const Value map = readPropertyList(input);
  const Value groups = map.asDictionary() ? map.asDictionary()->get("GroupContainers") : Value();
  if (!groups.asDictionary()) return std::string(input);
  Dictionary confinedGroups;
  for (const auto& [key, value] : *groups.asDictionary()) {
    Value entry = value;
    if (const std::string* path =
            entry.asDictionary() ? entry.asDictionary()->getString("Container") : nullptr) {
      if (PallionAdditions::containsDotDotPathComponents(*path)) return std::nullopt;
      Dictionary copy = *entry.asDictionary();
      if (path->starts_with('/')) copy.set("Container", Value::string(root + *path));
      entry = Value::dictionary(std::move(copy));
    }
    confinedGroups.set(key, entry);
  }
  Dictionary whole = *map.asDictionary();
  whole.set("GroupContainers", Value::dictionary(std::move(confinedGroups)));
  return writePropertyList(Value::dictionary(std::move(whole)), PropertyListFormat::kBinary);
}

std::set<std::string> namesOfFiles(const std::string& directory) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    if (entry.is_regular_file()) names.insert(entry.path().filename());
  }
  return names;
}

}  // namespace

void runInput(std::string_view input) {
  static const test::TemporaryRoot root;
  static const PLGlobalConfiguration configuration(root.url());
  const std::optional<std::string> map = confined(input, root.path());
  if (!map) return;
  for (const auto& entry : std::filesystem::directory_iterator(root.path()))
    std::filesystem::remove_all(entry.path());
  root.makeDirectory("private/var/mobile/Applications/1");
  const std::set<std::string> userData = {"one", "two", "three", "four"};
  root.makeFile("old/a/one");
  root.makeFile("old/b/in/two");
  root.makeFile("elsewhere/three");
  root.makeFile("new/group/group.a/four");
  root.makeFile(kInstallMap, *map);
  test::FakeInstaller installer(root);
  installer.groups[kApplication] = {"group.a", "group.b"};

  PLAppMigrator migrator(configuration);
  require(migrator.init(), "a migrator begins whatever the map holds");
  (migrator.*memberOf(MigrateGroupContainers()))(kApplication);
  const std::set<std::string> left = namesOfFiles(root.path());
  require(std::includes(left.begin(), left.end(), userData.begin(), userData.end()),
          "no user data is lost whatever the map names");
}

}  // namespace pallion::fuzz
