#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/property_list.h"
#include "platform/bundle.h"
#include "platform/extended_attributes.h"
#include "platform/icon.h"
#include "tests/helpers/child_process.h"
#include "tests/helpers/temporary_root.h"
#include "tests/helpers/tree_snapshot.h"

namespace pallion::test {
namespace {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

const std::string kContainers = "private/var/mobile/Applications";
const std::string kInstallMap = "private/var/mobile/Library/Caches/com.orlix.pallion.plist";
const std::string kHarborMap = "private/var/mobile/Library/Pallion/SafeHarbor.plist";

ProcessOutcome make(const std::string& root, const Words& more, std::optional<uid_t> user = {}) {
  ChildProcess::Setup setup;
  setup.arguments = {std::string(PALLION_BINARY_DIR) + "/bin/make-old-layout", "--root", root};
  setup.arguments.insert(setup.arguments.end(), more.begin(), more.end());
  setup.user = user;
  return runProcess(setup);
}

// One container, as its bundles tell.
struct Container {
  fs::path path;
  std::unique_ptr<QXBundle> application;
  std::unique_ptr<QXBundle> plugin;
  bool placeholder = false;
};

std::vector<Container> containers(const TemporaryRoot& root) {
  std::vector<Container> all;
  for (const auto& entry : fs::directory_iterator(root / kContainers)) {
    if (!entry.is_directory() || entry.is_symlink()) continue;
    Container container;
    container.path = entry.path();
    for (const auto& item : fs::directory_iterator(entry)) {
      const URL url = URL::fileURL(item.path().string(), URL::Kind::kDirectory);
      if (item.path().extension() == ".app") {
        container.application = QXBundle::bundleWithURL(url);
        uint32_t mark = 0;
        container.placeholder =
            ExtendedAttributes::current().get(item.path().c_str(), "com.orlix.palliond.placeholder",
                                              &mark, sizeof mark) == sizeof mark &&
            mark == 1;
      }
      if (item.path().extension() == ".vpnplugin") container.plugin = QXBundle::bundleWithURL(url);
    }
    all.push_back(std::move(container));
  }
  return all;
}

std::string textOf(QXBundle& bundle, std::string_view key) {
  const Dictionary* info = bundle.infoDictionary();
  const std::string* text = info ? info->getString(key) : nullptr;
  return text ? *text : "";
}

Dictionary list(const TemporaryRoot& root, const std::string& path) {
  const auto read = readDictionaryFile(URL::fileURL(root / path));
  EXPECT_TRUE(read) << path;
  return read.value_or(Dictionary());
}

TEST(MakeOldLayout, TheSeedDecidesEverything) {
  const TemporaryRoot first;
  const TemporaryRoot second;
  const TemporaryRoot other;
  const Words size = {"--apps", "9", "--mess"};
  const auto seeded = [&size](const char* seed) {
    Words words = size;
    words.insert(words.end(), {"--seed", seed});
    return words;
  };
  ASSERT_EQ(make(first.path(), seeded("7")).status, 0);
  ASSERT_EQ(make(second.path(), seeded("7")).status, 0);
  ASSERT_EQ(make(other.path(), seeded("8")).status, 0);
  const TreeSnapshot expected = snapshotTree(first.path());
  EXPECT_GT(expected.size(), 300U);
  EXPECT_EQ(difference(expected, snapshotTree(second.path())), "");
  EXPECT_NE(difference(expected, snapshotTree(other.path())), "");
}

TEST(MakeOldLayout, HoldsWhatWasAskedFor) {
  const TemporaryRoot root;
  const ProcessOutcome outcome =
      make(root.path(), {"--apps", "12", "--files", "15", "--file-size", "321", "--vpn", "3",
                         "--groups", "4", "--harbors", "2", "--placeholders", "3"});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_TRUE(
      outcome.out.starts_with("12 applications (3 of them placeholders), 3 VPN plug-ins "
                              "alone, 4 groups, 2 safe harbors, 0 awkward cases: "))
      << outcome.out;
  EXPECT_EQ(std::count(outcome.out.begin(), outcome.out.end(), '\n'), 1);
  EXPECT_EQ(fs::read_symlink(root / "var"), "private/var");

  size_t applications = 0, placeholders = 0, pluginsAlone = 0, both = 0, withMetadata = 0;
  std::set<std::string> identifiers;
  std::map<std::string, int> groupUsers;
  for (const Container& container : containers(root)) {
    SCOPED_TRACE(container.path);
    size_t files = 0;
    for (const auto& item : fs::recursive_directory_iterator(container.path)) {
      if (item.is_regular_file() && !item.is_symlink() && item.file_size() == 321 &&
          item.path().filename() != "inbox.db" &&
          item.path().filename() != "second name of the first") {
        ++files;
      }
    }
    EXPECT_EQ(files, 15U);
    struct stat status {};
    ASSERT_EQ(stat((container.path / "Documents").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, isRoot() ? 33U : geteuid());
    pluginsAlone += container.plugin && !container.application;
    both += container.plugin && container.application;
    if (container.plugin) {
      EXPECT_TRUE(identifiers.insert(textOf(*container.plugin, kQXBundleIdentifier)).second);
      EXPECT_TRUE(fs::exists(container.plugin->bundleURL().path() +
                             textOf(*container.plugin, kQXBundleExecutable)));
    }
    if (!container.application) continue;
    QXBundle& bundle = *container.application;
    ++applications;
    for (const auto key : {kQXBundleIdentifier, kQXBundleDisplayName, kQXBundleVersion,
                           kQXBundleShortVersionString, kQXBundleExecutable}) {
      EXPECT_NE(textOf(bundle, key), "") << key;
    }
    EXPECT_TRUE(identifiers.insert(textOf(bundle, kQXBundleIdentifier)).second);
    placeholders += container.placeholder;
    EXPECT_EQ(CreateHomeScreenIconImageFromBundle(bundle).has_value(), !container.placeholder);
    if (container.placeholder) continue;
    ASSERT_EQ(
        stat((bundle.bundleURL().path() + textOf(bundle, kQXBundleExecutable)).c_str(), &status),
        0);
    EXPECT_EQ(status.st_mode & 07777, 0755U);
    if (fs::exists(container.path / "BriscaMetadata.plist")) {
      ++withMetadata;
      EXPECT_TRUE(
          readDictionaryFile(URL::fileURL(container.path.string() + "/BriscaMetadata.plist")));
      EXPECT_TRUE(fs::exists(container.path / "Manifest.plist"));
      EXPECT_TRUE(fs::exists(container.path / "BriscaArtwork"));
    }
    const Value named = bundle.infoDictionary()->get(kQXApplicationGroups);
    if (!named) continue;
    for (const Value& group : *named.asArray()) ++groupUsers[*group.asString()];
  }
  EXPECT_EQ(applications, 12U);
  EXPECT_EQ(placeholders, 3U);
  EXPECT_EQ(pluginsAlone, 3U);
  EXPECT_GT(both, 0U);
  EXPECT_GT(withMetadata, 0U);

  const Value groups = list(root, kInstallMap).get("GroupContainers");
  ASSERT_NE(groups.asDictionary(), nullptr);
  EXPECT_EQ(groups.asDictionary()->size(), 4U);
  for (const auto& [group, entry] : *groups.asDictionary()) {
    EXPECT_TRUE(fs::is_directory(root.path() + *entry.asDictionary()->getString("Container")));
    EXPECT_GE(groupUsers[*group.asString()], 2) << *group.asString();
  }
  const Dictionary harbors = list(root, kHarborMap);
  EXPECT_EQ(harbors.size(), 2U);
  for (const auto& [identifier, entry] : harbors) {
    EXPECT_TRUE(
        fs::exists(root.path() + *entry.asDictionary()->getString("HarborPathKey") + "/shared.db"));
  }
  const auto clock = QXBundle::bundleWithURL(URL::fileURL(root / "Applications/Clock.app/"));
  ASSERT_NE(clock, nullptr);
  EXPECT_EQ(clock->identifier(), "com.orlix.clock");
}

TEST(MakeOldLayout, TheFirstContainerHasEveryKindOfItem) {
  const TemporaryRoot root;
  ASSERT_EQ(make(root.path(), {"--apps", "1", "--vpn", "0", "--placeholders", "0"}).status, 0);
  const auto all = containers(root);
  ASSERT_EQ(all.size(), 1U);
  const fs::path documents = all[0].path / "Documents";
  const auto status = [&documents](const std::string& name) {
    struct stat result {};
    EXPECT_EQ(lstat((documents / name).c_str(), &result), 0) << name;
    return result;
  };
  EXPECT_TRUE(S_ISLNK(status("latest").st_mode));
  EXPECT_TRUE(fs::exists(documents / "latest"));
  EXPECT_TRUE(S_ISLNK(status("gone").st_mode));
  EXPECT_FALSE(fs::exists(documents / "gone"));
  EXPECT_EQ(status("second name of the first").st_nlink, 2U);
  EXPECT_TRUE(fs::is_empty(documents / "Empty"));
  EXPECT_LT(status("disk.image").st_blocks * 512, status("disk.image").st_size / 2);
  EXPECT_TRUE(S_ISFIFO(status("control").st_mode));
  status("caf\xE9.txt");
  status(std::string(255, 'n'));
  EXPECT_EQ(status("tool").st_mode & 07777, 04755U);
  EXPECT_EQ(status("locked.txt").st_mode & 07777, 0444U);
  char tag[3];
  EXPECT_EQ(ExtendedAttributes::current().get((documents / "tagged.txt").c_str(), "com.example.tag",
                                              tag, sizeof tag),
            3);
  EXPECT_TRUE(fs::exists(all[0].path / "Tillbox"));
  EXPECT_TRUE(readDictionaryFile(
      URL::fileURL((all[0].path / "Library/Preferences/com.example.notes.plist").string())));
}

TEST(MakeOldLayout, TheMessHoldsEachAwkwardCase) {
  const TemporaryRoot root;
  ASSERT_EQ(
      make(root.path(), {"--apps", "0", "--placeholders", "0", "--vpn", "0", "--mess"}).status, 0);
  EXPECT_TRUE(fs::is_regular_file(root / kContainers + "/stray.txt"));
  EXPECT_TRUE(fs::is_regular_file(root / kContainers + "/WhereDidMyApplicationsGo.txt"));
  EXPECT_TRUE(fs::is_symlink(root / kContainers + "/Shortcut"));

  const std::string marker = "com.orlix.pallion.container_migrator.plist";
  std::map<std::string, int> seen;
  for (const Container& container : containers(root)) {
    if (fs::is_empty(container.path)) ++seen["empty"];
    for (const auto& item : fs::directory_iterator(container.path)) {
      if (item.is_symlink()) ++seen["link " + item.path().filename().string()];
    }
    if (container.application && !container.application->infoDictionary()) ++seen["no list"];
    if (container.application && !container.application->identifier()) ++seen["no identifier"];
    const fs::path markerPath = container.path / marker;
    if (fs::is_regular_file(markerPath)) {
      const auto read = readDictionaryFile(URL::fileURL(markerPath.string()));
      ++seen[read ? "whole marker" : "damaged marker"];
      if (read) {
        EXPECT_TRUE(fs::is_directory(root.path() + *read->getString("BundlePath")));
      }
    }
    if (fs::exists(container.path / "forgotten.txt")) ++seen["missed item"];
    if (!container.application || !container.application->identifier()) continue;
    const std::string identifier = *container.application->identifier();
    if (!isPlainName(identifier)) ++seen["bad identifier"];
    if (identifier == "com.orlix.clock") ++seen["older than built in"];
    const std::string executable = textOf(*container.application, kQXBundleExecutable);
    if (!executable.empty() &&
        !fs::exists(container.application->bundleURL().path() + executable)) {
      ++seen["no executable"];
    }
  }
  const std::map<std::string, int> expected = {{"empty", 1},
                                               {"link Linked.app", 1},
                                               {"link Linked.vpnplugin", 1},
                                               {"link " + marker, 1},
                                               {"no list", 2},
                                               {"no identifier", 3},
                                               {"whole marker", 1},
                                               {"damaged marker", 1},
                                               {"missed item", 1},
                                               {"bad identifier", 2},
                                               {"older than built in", 1},
                                               {"no executable", 1}};
  EXPECT_EQ(seen, expected);

  const Value groups = list(root, kInstallMap).get("GroupContainers");
  ASSERT_NE(groups.asDictionary(), nullptr);
  EXPECT_TRUE(groups.asDictionary()->getString("group.awkward.text"));
  EXPECT_EQ(
      groups.asDictionary()->get("group.awkward.number").asDictionary()->getString("Container"),
      nullptr);
  const Dictionary harbors = list(root, kHarborMap);
  EXPECT_TRUE(harbors.getString("com.example.awkward.text"));
  EXPECT_TRUE(harbors.get(Value::integer(5))) << "a key that is no text";
}

TEST(MakeOldLayout, WrongUsageChangesNothing) {
  const TemporaryRoot parent;
  // Whatever is taken for a very large number must find nothing to write.
  const Words nothing = {"--apps",   "0", "--placeholders", "0", "--vpn", "0",
                         "--groups", "0", "--harbors",      "0"};
  const struct {
    Words base;
    Words wrong;
  } cases[] = {
      {nothing, {"--file-size", "-3"}},
      {nothing, {"--file-size", "99999999999999999999"}},
      {nothing, {"--seed", "-1"}},
      {nothing, {"--files", "1.5"}},
      {nothing, {"--files", "many"}},
      {nothing, {"--bogus"}},
      {{"--apps", "2"}, {"--placeholders", "3"}},
  };
  for (const auto& c : cases) {
    Words words = c.base;
    words.insert(words.end(), c.wrong.begin(), c.wrong.end());
    SCOPED_TRACE(c.wrong.back());
    const ProcessOutcome outcome = make(parent / "root", words);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_TRUE(outcome.err.starts_with("make-old-layout: ")) << outcome.err;
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_FALSE(exists(parent / "root"));
  }

  parent.makeFile("taken/" + kContainers + "/kept.txt", "old");
  const TreeSnapshot before = snapshotTree(parent.path());
  EXPECT_EQ(make(parent / "taken", {}).status, 2);
  EXPECT_EQ(difference(before, snapshotTree(parent.path())), "");
}

TEST(MakeOldLayout, AFailureNamesTheFile) {
  const TemporaryRoot root;
  root.makeFile("private/var/mobile/Library", "in the way");
  const ProcessOutcome outcome = make(root.path(), {});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "make-old-layout: " + (root / "private/var/mobile/Library") + ": Not a directory\n");
}

TEST(MakeOldLayout, WithoutPrivilegesOwnersAreLeftOut) {
  if (!isRoot()) GTEST_SKIP() << "becoming another user needs root";
  const TemporaryRoot root;
  chmod(root.path().c_str(), 0777);
  const ProcessOutcome outcome = make(root.path(), {"--apps", "3", "--mess"}, 12345);
  // The tree may stand in a directory that is closed to others, such as one of mktemp's.
  if (outcome.status == 127) GTEST_SKIP() << "the program is not readable for everyone";
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "make-old-layout: left out: owners, which only root can give\n");
}

}  // namespace
}  // namespace pallion::test
