#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

#include "configuration/global_configuration.h"
#include "file_operations/file_manager.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {
namespace {

using Identifiers = std::set<std::string>;

// A device's root with bundles, and its configuration.
class BuiltInBundles : public testing::Test {
 protected:
  std::string writeInfo(const std::string& bundle, const std::string& entries) const {
    root_.makeFile(bundle + "/Info.plist",
                   "<plist version=\"1.0\"><dict>" + entries + "</dict></plist>");
    return root_ / bundle;
  }
  std::string makeBundle(const std::string& bundle, const std::string& identifier) const {
    return writeInfo(bundle, "<key>QXBundleIdentifier</key><string>" + identifier +
                                 "</string><key>QXBundleVersion</key><string>1.2</string>"
                                 "<key>QXBundleExecutable</key><string>run</string>");
  }

  TemporaryRoot root_;
  PLGlobalConfiguration configuration_{root_.url()};
};

Identifiers identifiersOf(const std::optional<Dictionary>& map) {
  Identifiers identifiers;
  if (!map) return {"no map"};
  for (const auto& [identifier, info] : *map) identifiers.insert(*identifier.asString());
  return identifiers;
}

using Configuration = PLGlobalConfiguration;
const struct Inventory {
  const char* directory;
  std::optional<Dictionary> (Configuration::*get)();
  void (Configuration::*reScan)();
} kInventories[] = {
    {"Applications", &Configuration::systemAppBundleIDToInfoMap, &Configuration::reScanSystemApps},
    {"System/Library/Baseweave", &Configuration::baseweaveAppBundleIDToInfoMap,
     &Configuration::reScanBaseweaveApps},
    {"OrlixInternal/Applications", &Configuration::internalAppBundleIDToInfoMap,
     &Configuration::reScanInternalApps},
};

TEST_F(BuiltInBundles, AreOnlyReadableRealApplications) {
  const std::string path = makeBundle("Applications/Good.app", "good");
  makeBundle("Applications/Capital.App", "capital");
  makeBundle("Applications/Other.framework", "framework");
  makeBundle("Applications/app", "named app");
  makeBundle("Applications/.app", "only an extension");
  root_.makeLink("Applications/Link.app", makeBundle("elsewhere/Linked.app", "linked"));
  root_.makeDirectory("Applications/Missing.app");
  root_.makeFile("Applications/Damaged.app/Info.plist", "damaged");
  writeInfo("Applications/Number.app", "<key>QXBundleIdentifier</key><integer>1</integer>");
  writeInfo("Applications/Nothing.app", "<key>QXBundleVersion</key><string>1</string>");
  root_.makeFile("Applications/File.app");
  RecordedProductLog log(kLogDebug);
  const Dictionary info{{"QXBundleIdentifier", Value::string("good")},
                        {"QXBundleVersion", Value::string("1.2")},
                        {"com.orlix.Pallion.bundleURL", Value::string(path + "/")}};
  EXPECT_EQ(configuration_.systemAppBundleIDToInfoMap().value_or(Dictionary()),
            Dictionary({{"good", Value::dictionary(info)}}));

  Identifiers skipped;
  const std::string prefix =
      "7 -[PLGlobalConfiguration _bundleIDMapForBundlesInDirectory:withExtension:]: Failed to ";
  for (const std::string& line : log.lines) {
    if (line.starts_with(prefix)) skipped.insert(line.substr(prefix.size()));
  }
  const std::string list = "load Info.plist from bundle file://" + (root_ / "Applications/");
  const std::string identifier =
      "get QXBundleIdentifier from bundle file://" + (root_ / "Applications/");
  EXPECT_EQ(skipped, (Identifiers{list + "Missing.app/", list + "Damaged.app/", list + "File.app",
                                  identifier + "Number.app/", identifier + "Nothing.app/"}));
}

TEST_F(BuiltInBundles, WithOneIdentifierCountAsTheOneListedLast) {
  for (const std::string name : {"1", "2", "3", "4", "5", "6"})
    makeBundle("Applications/" + name + ".app", "same");
  const auto listed = PLFileManager::defaultManager().urlsForItemsInDirectoryAtURL(
      configuration_.systemAppsDirectory(), true, nullptr);
  const std::optional<Dictionary> map = configuration_.systemAppBundleIDToInfoMap();
  ASSERT_TRUE(listed && map && map->size() == 1);
  EXPECT_EQ(*map->get("same").asDictionary()->getString(Configuration::kBundleURLKey),
            listed->back().path());
}

TEST_F(BuiltInBundles, AreScannedUntilThereIsAListAndThenOnlyOnDemand) {
  for (const Inventory& inventory : kInventories) {
    SCOPED_TRACE(inventory.directory);
    const std::string directory = inventory.directory;
    const auto scanned = [&] { return identifiersOf((configuration_.*inventory.get)()); };
    root_.makeFile(directory);
    for (int call = 0; call < 2; ++call) {
      RecordedProductLog log;
      EXPECT_EQ(scanned(), Identifiers{"no map"});
      ASSERT_EQ(log.lines.size(), 1U);
      const std::string line =
          "3 -[PLGlobalConfiguration _bundleIDMapForBundlesInDirectory:withExtension:]: "
          "Failed to search for apps in file://" +
          (root_ / directory) + "/ : ";
      EXPECT_TRUE(log.lines[0].starts_with(line)) << log.lines[0];
      EXPECT_NE(log.lines[0].find("Not a directory"), std::string::npos) << log.lines[0];
    }
    ASSERT_EQ(unlink((root_ / directory).c_str()), 0);
    root_.makeDirectory(directory);
    EXPECT_EQ(scanned(), Identifiers{}) << "an empty list is one";
    makeBundle(directory + "/A.app", "a");
    EXPECT_EQ(scanned(), Identifiers{});
    for (const Inventory& other : kInventories) {
      if (&other != &inventory) (configuration_.*other.reScan)();
    }
    EXPECT_EQ(scanned(), Identifiers{});
    (configuration_.*inventory.reScan)();
    EXPECT_EQ(scanned(), Identifiers{"a"});
    std::filesystem::remove_all(root_ / directory);
    (configuration_.*inventory.reScan)();
    RecordedProductLog log(kLogDebug);
    EXPECT_EQ(scanned(), Identifiers{"no map"});
    EXPECT_TRUE(log.lines.empty()) << "a missing directory is no failure";
  }
}

TEST_F(BuiltInBundles, AreGatheredByKind) {
  makeBundle("Applications/S.app", "system");
  makeBundle("OrlixInternal/Applications/I.app", "internal");
  makeBundle("System/Library/Baseweave/B.app", "baseweave");
  makeBundle("Developer/Applications/D.app", "developer");
  makeBundle("System/Library/Frameworks/F.framework", "frameworks");
  makeBundle("System/Library/PrivateFrameworks/F.framework", "private");
  makeBundle("OrlixInternal/PrivateFrameworks/F.framework", "internal private");
  makeBundle("Developer/Frameworks/F.framework", "developer framework");
  makeBundle("System/Library/Frameworks/A.app", "application among frameworks");
  // Developer applications are asked for on every call.
  for (const Identifiers& developer : {Identifiers{"developer"}, Identifiers{"new"}}) {
    Identifiers expected{"system", "internal"};
    expected.insert(developer.begin(), developer.end());
    EXPECT_EQ(configuration_.builtInApplicationBundleIDs(), expected);
    EXPECT_EQ(configuration_.builtInFrameworkBundleIDs(),
              (Identifiers{"frameworks", "private", "internal private"}));
    makeBundle("Developer/Applications/D.app", "new");
    makeBundle("System/Library/Frameworks/New.framework", "new");
  }
  configuration_.reScanBaseweaveApps();
  EXPECT_FALSE(configuration_.builtInFrameworkBundleIDs().contains("new"));
  configuration_.reScanInternalApps();
  EXPECT_TRUE(configuration_.builtInFrameworkBundleIDs().contains("new"));
}

}  // namespace
}  // namespace pallion::test
