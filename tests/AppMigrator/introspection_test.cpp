#include <functional>
#include <sys/stat.h>

#include "tests/AppMigrator/migrator_fixture.h"
#include "tests/helpers/unreadable_bundle.h"

namespace pallion::test {

using Introspection = MigratorFixture;

// Each case makes one container "C" and says which lines speak of it and whether it is still there
// afterwards. None gets as far as an installation.
TEST_F(Introspection, DecidesWhatAnItemIs) {
  const std::string container = std::string(kApplications) + "/C";
  const std::string marker = std::string(kMigrationMarkerName);
  const std::string regular = "Found regular file at $A/C ; removing";
  const std::string unnamed = "Could not get identifier for bundle at $A/C/Foo.app";
  const std::string empty = "No app or vpn bundle found in container $A/C/ ; removing it";
  const std::string damaged = "Failed to load migration marker file from file://$A/C/" + marker;
  const auto link = [&](const std::string& name) {
    root.makeLink(container + "/" + name, "/nowhere");
  };
  const struct {
    const char* name;
    std::function<void()> make;
    bool remains;
    std::string errors;
  } rows[] = {
      {"plain file", [&] { root.makeFile(container, "x"); }, false, regular},
      {"FIFO", [&] { mkfifo((root / container).c_str(), 0600); }, false, regular},
      {"only user data", [&] { makeItem("C/Documents/x"); }, false, empty},
      {"bundle without identifier", [&] { makeBundle("C", "Foo.app", ""); }, false,
       unnamed + "/\n" + empty},
      {"damaged Info.plist", [&] { makeItem("C/Foo.app/Info.plist", "bplist00"); }, false,
       unnamed + "/\n" + empty},
      {"bundle is a file", [&] { makeItem("C/Foo.app"); }, false, unnamed + "\n" + empty},
      {"plugin without identifier", [&] { makeBundle("C", "Bar.vpnplugin", ""); }, false, empty},
      {"extension in capitals", [&] { makeBundle("C", "Foo.APP", "org.foo"); }, false, empty},
      {"only an extension", [&] { makeBundle("C", ".app", "org.foo"); }, false, empty},
      {"application link", [&] { link("Foo.app"); }, true,
       "Skipping container with app symlink at $A/C/Foo.app"},
      {"plugin link", [&] { link("Bar.vpnplugin"); }, true,
       "VPN plugin was symlink; skipping container $A/C/Bar.vpnplugin"},
      {"marker link", [&] { link(marker); }, true,
       "Migration marker was symlink; skipping container $A/C/" + marker},
      {"damaged marker without a bundle", [&] { makeItem("C/" + marker, "half a mar"); }, false,
       damaged + "\n" + damaged + "\n" + empty},
      {"damaged marker with a bundle",
       [&] {
         makeBundle("C", "Foo.app", "org.foo");
         makeItem("C/" + marker, "");
       },
       true, damaged + "\n" + damaged},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    root.makeDirectory(kApplications);
    row.make();
    hostLog.lines.clear();
    EXPECT_EQ(run(), !row.remains);
    EXPECT_EQ(itemErrors(), row.errors);
    EXPECT_EQ(exists(inApplications("C")), row.remains);
    EXPECT_TRUE(installer.installations.empty());
    remove(root / kApplications);
  }
}

TEST_F(Introspection, RejectsMarkersInTheOrderOfTheirKeys) {
  const std::string marker =
      "migration marker file $A/C/com.orlix.pallion.container_migrator.plist";
  const Value number = Value::integer(5);
  const std::pair<Dictionary, std::string> rows[] = {
      // none removes the key
      {{{kBundlePathKey, {}}, {kContainerTypeKey, {}}}, "Failed to get bundle path from " + marker},
      {{{kBundlePathKey, number}}, "Failed to get bundle path from " + marker},
      {{{kContainerTypeKey, {}}, {kContainerPathKey, {}}},
       "Failed to get container type from " + marker},
      {{{kContainerPathKey, {}}, {kBundleIdentifierKey, {}}},
       "Failed to get container path from " + marker},
      {{{kBundleIdentifierKey, {}}, {kSecondBundlePathKey, number}},
       "Failed to get container bundle ID from " + marker},
      {{{kSecondBundlePathKey, number}}, "Second bundle path was not a string: 5"},
  };
  makeBundle("C", "Foo.app", "org.foo");
  for (const auto& [changes, message] : rows) {
    Dictionary content = markerFor("C", "Foo.app", "org.foo");
    for (const auto& [key, value] : changes) {
      if (value) {
        content.set(key, value);
      } else {
        content.remove(key);
      }
    }
    makeMarker("C", content);
    hostLog.lines.clear();
    EXPECT_FALSE(run());
    ASSERT_EQ(lines().size(), 4U) << message;
    EXPECT_EQ(lines()[0], "3 " + message);
    EXPECT_TRUE(exists(inApplications("C/Foo.app")));
  }
}

TEST_F(Introspection, ResumesFromAMarkerWhateverTheBundleIs) {
  // The bundle has left its place already, and one with another identifier must not count.
  makeBundle("C", "Other.app", "org.other");
  makeItem("C/Staging/Payload/Foo.app/main");
  makeMarker("C", markerFor("C", "Foo.app", "org.foo"));
  installer.installed = {"org.foo"};
  EXPECT_FALSE(run());  // Other.app is a missed item
  ASSERT_EQ(installer.installations.size(), 1U);
  EXPECT_EQ(*installer.installations[0].options.getString(kQXBundleIdentifier), "org.foo");
  EXPECT_TRUE(logged("5 Found migration marker $A/C/com.orlix.pallion.container_migrator.plist"));
  EXPECT_TRUE(exists(inApplications("C/Other.app")));
}

TEST_F(Introspection, TakesAReadErrorForNoAbsence) {
  makeApplication("A1", "org.foo");
  makeBundle("V1", "Bar.vpnplugin", "org.bar");
  QXBundle::replace(&makeUnreadableBundle);
  EXPECT_FALSE(run());
  QXBundle::replace(nullptr);
  EXPECT_TRUE(exists(inApplications("A1/Documents/letter")));
  EXPECT_TRUE(exists(inApplications("V1/Bar.vpnplugin/Info.plist")));
  EXPECT_TRUE(logged("3 Could not get identifier for bundle at $A/A1/Foo.app/"));
  EXPECT_TRUE(logged("3 Could not get identifier for bundle at $A/V1/Bar.vpnplugin/"));
}

}  // namespace pallion::test
