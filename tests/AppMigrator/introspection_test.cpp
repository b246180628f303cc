#include <algorithm>
#include <functional>
#include <sys/stat.h>

#include "AppMigrator/container_info.h"
#include "file_operations/file_manager.h"
#include "tests/AppMigrator/migrator_fixture.h"
#include "tests/helpers/unreadable_bundle.h"

namespace pallion::test {

namespace {

class Introspection : public MigratorFixture {};

}  // namespace

// Each case makes one container "C" and says which lines speak of it and whether it is still there
// afterwards. The bundles are refused by the installer, so that a container that got as far as
// being migrated can be told by its installations.
TEST_F(Introspection, DecidesWhatAnItemIs) {
  struct Row {
    const char* name;
    std::function<void()> make;
    std::vector<std::string> errors;  // before "Not removing ..."
    bool remains;
    bool migrated;
  };
  const std::string container = std::string(kApplications) + "/C";
  const auto link = [&](const std::string& name) {
    root.makeLink(container + "/" + name, "/nowhere");
  };
  const std::vector<Row> rows = {
      {"plain file",
       [&] { root.makeFile(container, "x"); },
       {"3 PLAppMigrator: Found regular file at $A/C ; removing"},
       false,
       false},
      {"FIFO",
       [&] {
         root.makeDirectory(kApplications);
         ASSERT_EQ(0, mkfifo((root / container).c_str(), 0600));
       },
       {"3 PLAppMigrator: Found regular file at $A/C ; removing"},
       false,
       false},
      {"empty container",
       [&] { root.makeDirectory(container); },
       {"3 PLAppMigrator: No app or vpn bundle found in container $A/C/ ; removing it"},
       false,
       false},
      {"only user data",
       [&] { root.makeFile(container + "/Documents/x"); },
       {"3 PLAppMigrator: No app or vpn bundle found in container $A/C/ ; removing it"},
       false,
       false},
      {"bundle without identifier",
       [&] { makeBundle("C", "Foo.app", ""); },
       {"3 PLAppMigrator: Could not get identifier for bundle at $A/C/Foo.app/",
        "3 PLAppMigrator: No app or vpn bundle found in container $A/C/ ; removing it"},
       false,
       false},
      {"bundle without Info.plist",
       [&] { root.makeDirectory(container + "/Foo.app"); },
       {"3 PLAppMigrator: Could not get identifier for bundle at $A/C/Foo.app/",
        "3 PLAppMigrator: No app or vpn bundle found in container $A/C/ ; removing it"},
       false,
       false},
      {"bundle with damaged Info.plist",
       [&] { root.makeFile(container + "/Foo.app/Info.plist", "bplist00 no"); },
       {"3 PLAppMigrator: Could not get identifier for bundle at $A/C/Foo.app/",
        "3 PLAppMigrator: No app or vpn bundle found in container $A/C/ ; removing it"},
       false,
       false},
      {"plugin without identifier",
       [&] { makeBundle("C", "Bar.vpnplugin", ""); },
       {"3 PLAppMigrator: No app or vpn bundle found in container $A/C/ ; removing it"},
       false,
       false},
      {"extension in capitals",
       [&] { makeBundle("C", "Foo.APP", "org.foo"); },
       {"3 PLAppMigrator: No app or vpn bundle found in container $A/C/ ; removing it"},
       false,
       false},
      {"name that is only an extension",
       [&] { makeBundle("C", ".app", "org.foo"); },
       {"3 PLAppMigrator: No app or vpn bundle found in container $A/C/ ; removing it"},
       false,
       false},
      {"bundle is a file",
       [&] { root.makeFile(container + "/Foo.app"); },
       {"3 PLAppMigrator: Could not get identifier for bundle at $A/C/Foo.app",
        "3 PLAppMigrator: No app or vpn bundle found in container $A/C/ ; removing it"},
       false,
       false},
      {"application link",
       [&] { link("Foo.app"); },
       {"3 PLAppMigrator: Skipping container with app symlink at $A/C/Foo.app"},
       true,
       false},
      {"plugin link",
       [&] { link("Bar.vpnplugin"); },
       {"3 PLAppMigrator: VPN plugin was symlink; skipping container $A/C/Bar.vpnplugin"},
       true,
       false},
      {"marker link",
       [&] { link(std::string(kMigrationMarkerName)); },
       {"3 PLAppMigrator: Migration marker was symlink; skipping container "
        "$A/C/com.orlix.pallion.container_migrator.plist"},
       true,
       false},
      {"damaged marker without a bundle",
       [&] { root.makeFile(container + "/" + std::string(kMigrationMarkerName), "half a mar"); },
       {"3 PLAppMigrator: Failed to load migration marker file from "
        "file://$A/C/com.orlix.pallion.container_migrator.plist",
        "3 PLAppMigrator: Failed to load migration marker file from "
        "file://$A/C/com.orlix.pallion.container_migrator.plist",
        "3 PLAppMigrator: No app or vpn bundle found in container $A/C/ ; removing it"},
       false,
       false},
      {"damaged marker with a bundle",
       [&] {
         makeBundle("C", "Foo.app", "org.foo");
         root.makeFile(container + "/" + std::string(kMigrationMarkerName), "");
       },
       {"3 PLAppMigrator: Failed to load migration marker file from "
        "file://$A/C/com.orlix.pallion.container_migrator.plist",
        "3 PLAppMigrator: Failed to load migration marker file from "
        "file://$A/C/com.orlix.pallion.container_migrator.plist"},
       true,
       false},
      {"identifier that is no plain name",
       [&] { makeApplication("C", "../../evil"); },
       {},
       true,
       true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    root.makeDirectory(kApplications);
    row.make();
    hostLog.lines.clear();
    installer.installations.clear();
    const bool result = run();
    std::vector<std::string> errors = lines();
    if (row.remains) {
      EXPECT_FALSE(result);
      ASSERT_GE(errors.size(), 2U);
      EXPECT_EQ(errors.back(), kRunFailedLine);
      EXPECT_EQ(errors[errors.size() - 2], "3 PLAppMigrator: Not removing $R/" +
                                               std::string(kInstallMap) +
                                               " because 1 items remain unmigrated.");
      errors.resize(errors.size() - 2);
    } else {
      EXPECT_TRUE(result);
    }
    if (row.migrated) {
      EXPECT_FALSE(errors.empty());
    } else {
      EXPECT_EQ(errors, row.errors);
    }
    EXPECT_EQ(exists(inApplications("C")), row.remains);
    EXPECT_TRUE(installer.installations.empty());
    PLFileManager::defaultManager().removeItemAtURL(configuration.oldContainerPath(), nullptr);
  }
}

TEST_F(Introspection, RejectsMarkersInTheOrderOfTheirKeys) {
  const std::string marker = "$A/C/com.orlix.pallion.container_migrator.plist";
  const Value number = Value::integer(5);
  struct Row {
    std::vector<std::pair<std::string_view, Value>> changes;  // none removes the key
    std::string message;
  };
  const std::vector<Row> rows = {
      {{{kBundlePathKey, {}}, {kContainerTypeKey, {}}},
       "Failed to get bundle path from migration marker file " + marker},
      {{{kBundlePathKey, number}},
       "Failed to get bundle path from migration marker file " + marker},
      {{{kContainerTypeKey, {}}, {kContainerPathKey, {}}},
       "Failed to get container type from migration marker file " + marker},
      {{{kContainerPathKey, {}}, {kBundleIdentifierKey, {}}},
       "Failed to get container path from migration marker file " + marker},
      {{{kBundleIdentifierKey, {}}, {kSecondBundlePathKey, number}},
       "Failed to get container bundle ID from migration marker file " + marker},
      {{{kSecondBundlePathKey, number}}, "Second bundle path was not a string: 5"},
  };
  makeBundle("C", "Foo.app", "org.foo");
  for (const Row& row : rows) {
    Dictionary content = markerFor("C", "Foo.app", "org.foo");
    for (const auto& [key, value] : row.changes) {
      if (value) {
        content.set(key, value);
      } else {
        content.remove(key);
      }
    }
    makeMarker("C", content);
    hostLog.lines.clear();
    EXPECT_FALSE(run());
    const std::vector<std::string> errors = lines();
    ASSERT_EQ(errors.size(), 4U) << row.message;
    EXPECT_EQ(errors[0], "3 PLAppMigrator: " + row.message);
    EXPECT_EQ(errors[1],
              "3 PLAppMigrator: Failed to load migration marker file from file://" + marker);
    EXPECT_TRUE(exists(inApplications("C/Foo.app")));
  }
}

TEST_F(Introspection, ResumesFromAMarkerWhateverTheBundleIs) {
  // The bundle has left its place already, and one with another identifier must not count.
  makeBundle("C", "Other.app", "org.other");
  root.makeFile(std::string(kApplications) + "/C/Staging/Payload/Foo.app/main");
  makeMarker("C", markerFor("C", "Foo.app", "org.foo"));
  installer.installed = {"org.foo"};
  EXPECT_FALSE(run());  // Other.app is a missed item
  ASSERT_EQ(installer.installations.size(), 1U);
  EXPECT_EQ(*installer.installations[0].options.getString(kQXBundleIdentifier), "org.foo");
  EXPECT_TRUE(logged(
      "5 PLAppMigrator: Found migration marker $A/C/com.orlix.pallion.container_migrator.plist"));
  EXPECT_TRUE(exists(inApplications("C/Other.app")));
}

TEST_F(Introspection, PairsApplicationAndPlugin) {
  makeApplication("C", "org.foo");
  makeBundle("C", "Bar.vpnplugin", "org.foo.vpn");
  makeBundle("V", "Alone.vpnplugin", "org.alone.vpn");
  EXPECT_TRUE(run());
  std::map<std::string, std::vector<std::string>> staged;
  for (const FakeInstaller::Installation& installation : installer.installations) {
    if (*installation.options.getString(kAppPackageTypeKey) == kAppPackageTypeCustomer) {
      staged[*installation.options.getString(kQXBundleIdentifier)] = installation.entries;
    }
  }
  EXPECT_EQ(staged["org.foo"],
            (std::vector<std::string>{"Payload", "Payload/Bar.vpnplugin",
                                      "Payload/Bar.vpnplugin/Info.plist",
                                      "Payload/Bar.vpnplugin/main", "Payload/Foo.app",
                                      "Payload/Foo.app/Info.plist", "Payload/Foo.app/main"}));
  EXPECT_EQ(staged["org.alone.vpn"], (std::vector<std::string>{"Payload", "Payload/Alone.vpnplugin",
                                                               "Payload/Alone.vpnplugin/Info.plist",
                                                               "Payload/Alone.vpnplugin/main"}));
  // A plugin alone needs no placeholder.
  EXPECT_EQ(installer.installations.size(), 3U);
}

TEST_F(Introspection, TakesAReadErrorForNoAbsence) {
  makeApplication("A1", "org.foo");
  makeBundle("V1", "Bar.vpnplugin", "org.bar");
  QXBundle::replace(&makeUnreadableBundle);
  EXPECT_FALSE(run());
  QXBundle::replace(nullptr);
  EXPECT_TRUE(exists(inApplications("A1/Documents/letter")));
  EXPECT_TRUE(exists(inApplications("V1/Bar.vpnplugin/Info.plist")));
  EXPECT_TRUE(logged("3 PLAppMigrator: Could not get identifier for bundle at $A/A1/Foo.app/"));
  EXPECT_TRUE(
      logged("3 PLAppMigrator: Could not get identifier for bundle at $A/V1/Bar.vpnplugin/"));
}

}  // namespace pallion::test
