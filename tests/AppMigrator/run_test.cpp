#include "platform/bundle.h"
#include "tests/AppMigrator/migrator_fixture.h"

namespace pallion::test {

class Run : public MigratorFixture {};

TEST_F(Run, WithoutAnOldLayoutOnlyHarborsAndProtectionAreLookedAt) {
  PLAppMigrator migrator(configuration);
  ASSERT_TRUE(migrator.init());
  EXPECT_EQ(migrator.dataClassName(), "PLAppMigrator");
  EXPECT_EQ(migrator.estimatedDuration(), 20.0F);
  EXPECT_EQ(migrator.migrationProgress(), 0.5F);
  EXPECT_TRUE(migrator.performMigration());
  EXPECT_TRUE(hostLog.lines.empty());
  ASSERT_EQ(installer.protectionCalls.size(), 1U);
  EXPECT_EQ(installer.protectionCalls[0],
            (Dictionary{{kPLUpdateSystemAppDataContainerDataProtection, Value::boolean(true)}}));
}

TEST_F(Run, YieldsNoMigratorWhenTheInventoryCannotBeTaken) {
  root.makeFile(kApplications, "a file");
  PLAppMigrator migrator(configuration);
  EXPECT_FALSE(migrator.init());
  EXPECT_TRUE(loggedBeginningWith("3 Failed to get items at file://$A/ : POSIX 20"));
}

TEST_F(Run, CountsEveryItemOnce) {
  for (int i = 0; i < 6; ++i)
    makeApplication("C" + std::to_string(i), "org.foo" + std::to_string(i));
  makeItem("WhereDidMyApplicationsGo.txt");
  root.makeDirectory(std::string(kApplications) + "/empty");
  PLAppMigrator migrator(configuration);
  ASSERT_TRUE(migrator.init());
  EXPECT_EQ(migrator.estimatedDuration(), 38.0F);
  EXPECT_EQ(migrator.migrationProgress(), 0.0F);
  EXPECT_TRUE(migrator.performMigration());
  EXPECT_EQ(migrator.migrationProgress(), 1.0F);
  for (const std::string& category : hostLog.categories) EXPECT_EQ(category, "Shiftweller");
  EXPECT_FALSE(exists(root / kApplications));
}

// Applications go first and backwards, the others after them in their order.
TEST_F(Run, MigratesInItsOrder) {
  makeApplication("1", "app.1");
  makeBundle("2", "V.vpnplugin", "vpn.2");
  makeApplication("3", "app.3");
  makeMarker("4", markerFor("4", "Foo.app", "app.4"));
  Dictionary vpnMarker = markerFor("5", "V.vpnplugin", "vpn.5");
  vpnMarker.set("ContainerType", Value::string("Foo"));
  makeMarker("5", vpnMarker);
  run();
  // The directory's own order is the kernel's; the lines tell it.
  constexpr std::string_view kIntrospecting = "5 Introspecting $A/";
  constexpr std::string_view kMigrating = "5 Migrating ";
  std::vector<std::string> expected;
  std::vector<std::string> migrated;
  for (const std::string& line : lines(false)) {
    if (line.starts_with(kIntrospecting)) {
      const char name = line[kIntrospecting.size()];
      const bool isPlugin = name == '2' || name == '5';
      expected.insert(isPlugin ? expected.end() : expected.begin(),
                      std::string(isPlugin ? "vpn." : "app.") + name);
    } else if (line.starts_with(kMigrating) && line.find(" at $A/") != std::string::npos) {
      migrated.push_back(line.substr(kMigrating.size(), expected[0].size()));
    }
  }
  EXPECT_EQ(expected.size(), 5U);
  EXPECT_EQ(migrated, expected);
  // A plug-in alone needs no placeholder.
  for (const FakeInstaller::Installation& installation : installer.installations) {
    EXPECT_TRUE(*installation.options.getString(kAppPackageTypeKey) == kAppPackageTypeCustomer ||
                installation.options.getString(kQXBundleIdentifier)->starts_with("app."));
  }
}

TEST_F(Run, FailsWhenDataProtectionFails) {
  installer.failDataProtection = true;
  EXPECT_FALSE(run());
  EXPECT_EQ(lines(), (std::vector<std::string>{"3 Failed to update container data protection",
                                               kRunFailedLine}));
}

TEST_F(Run, ReadsWhatItCanOfTheInstallMap) {
  const Dictionary other{{"Other", Value::integer(1)}};
  const Dictionary wrong{{"GroupContainers", Value::array({})}};
  const std::pair<std::function<void()>, std::string> rows[] = {
      {[] {}, "Old install map not found at $R/" + std::string(kInstallMap)},
      {[&] { root.makeFile(kInstallMap, "no list"); },
       "Old install map not found at $R/" + std::string(kInstallMap)},
      {[&] { writeList(kInstallMap, other); }, "No group container map found in install map"},
      {[&] { writeList(kInstallMap, wrong); }, "No group container map found in install map"},
  };
  for (const auto& [make, line] : rows) {
    makeApplication("C", "org.foo");
    make();
    hostLog.lines.clear();
    EXPECT_TRUE(run());
    EXPECT_TRUE(logged("5 " + line)) << line;
  }
}

// Harbors that can't be understood are dropped; one that can't be registered keeps the map.
TEST_F(Run, RegistersSafeHarbors) {
  const auto entry = [](const char* path) {
    return Value::dictionary({{"HarborPathKey", Value::string(path)}});
  };
  Dictionary map = {{"org.a", entry("/harbor/a")},
                    {"org.b", entry("/harbor/b")},
                    {"org.list", Value::array({})},
                    {"org.number", Value::dictionary({{"HarborPathKey", Value::integer(3)}})}};
  map.set(Value::integer(9), entry("/harbor/9"));
  const std::vector<std::string> malformed = {
      "3 Failed to get harbor info for identifier org.list",
      "3 Failed to get harbor path from harbor entry for org.number : {HarborPathKey = 3}",
      "3 Identifier in harbor map was not string; skipping"};

  writeList(kHarborMap, map);
  installer.refusedHarbors = {"org.a"};
  EXPECT_FALSE(run());
  EXPECT_EQ(installer.harborCalls,
            (std::vector<std::string>{"/harbor/a org.a 2", "/harbor/b org.b 2"}));
  EXPECT_TRUE(exists(root / kHarborMap));
  std::vector<std::string> expected = malformed;
  expected.insert(expected.begin(),
                  "3 Failed to migrate safe harbor for identifier org.a at /harbor/a : (null)");
  expected.emplace_back(kRunFailedLine);
  EXPECT_EQ(lines(), expected);

  hostLog.lines.clear();
  installer.refusedHarbors.clear();
  EXPECT_TRUE(run());
  EXPECT_EQ(lines(), malformed);
  EXPECT_FALSE(exists(root / kHarborMap));

  hostLog.lines.clear();
  root.makeFile(kHarborMap, "no list");
  EXPECT_TRUE(run());
  EXPECT_TRUE(logged("3 Failed to load existing harbor map from $R/" + std::string(kHarborMap)));
  EXPECT_TRUE(exists(root / kHarborMap));
}

}  // namespace pallion::test
