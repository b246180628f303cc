#include <sys/stat.h>

#include "platform/bundle.h"
#include "tests/AppMigrator/migrator_fixture.h"
#include "tests/helpers/refusing_remove.h"

namespace pallion::test {

using Groups = MigratorFixture;
using Placeholder = MigratorFixture;

TEST_F(Groups, AreMovedOnceAndSkippedWithTheirReasons) {
  makeApplication("C", "org.foo");
  makeApplication("D", "org.bar");
  installer.groups["org.bar"] = {"g.file"};
  installer.groups["org.foo"] = {"g.file", "g.missing", "g.number", "g.string", "g.unknown"};
  root.makeFile("groups/1/data", "old");
  root.makeLink("groups/1/link", "/nowhere");
  root.makeFile("new/group/g.file/data", "new, replaced");
  root.makeFile("new/group/g.file/own", "stays");
  makeInstallMap({{"g.file", groupAt("groups/1")},
                  {"of no application", groupAt("groups/2")},
                  {"g.missing", groupAt("groups/none")},
                  {"g.number", Value::dictionary({{"Container", Value::integer(4)}})},
                  {"g.string", Value::string("text")}});
  EXPECT_TRUE(run());
  EXPECT_EQ(readAll(root / "new/group/g.file/data"), "old");
  EXPECT_EQ(readAll(root / "new/group/g.file/own"), "stays");
  EXPECT_TRUE(exists(root / "new/group/g.file/link"));
  EXPECT_FALSE(exists(root / "groups/1"));
  EXPECT_EQ(itemErrors(), "Missing source group container at $R/groups/none/");
  for (const char* line : {"5 Migrating group container g.file at file://$R/groups/1/ to "
                           "file://$R/new/group/g.file/",
                           "5 Failed to get path to group container for org.foo[g.number]",
                           "5 No group container entry to migrate for org.foo[g.string]",
                           "5 No group container entry to migrate for org.foo[g.unknown]"}) {
    EXPECT_TRUE(logged(line)) << line;
  }
}

TEST_F(Groups, WithAnItemThatDoesNotMoveStay) {
  makeApplication("C", "org.foo");
  makeApplication("D", "org.bar");
  installer.groups = {{"org.foo", {"g"}}, {"org.bar", {"g"}}};
  root.makeFile("groups/1/data", "moved");
  root.makeFile("groups/1/stuck/inner", "kept");
  root.makeFile("new/group/g/stuck/in-the-way", "x");
  const RefusingRemove refusing("/g/stuck");
  makeInstallMap({{"g", groupAt("groups/1")}});
  EXPECT_TRUE(run());
  EXPECT_EQ(readAll(root / "new/group/g/data"), "moved");
  EXPECT_EQ(readAll(root / "groups/1/stuck/inner"), "kept");
  // Its entry stays for the next application that shares it.
  const std::string failure = "3 Failed to move item $R/groups/1/stuck/ to $R/new/group/g/stuck : ";
  EXPECT_EQ(std::ranges::count_if(
                lines(), [&](const std::string& line) { return line.starts_with(failure); }),
            2);
}

TEST_F(Placeholder, HoldsIdentityIconAndMetadata) {
  makeApplication("C", "org.foo");
  writeList(std::string(kApplications) + "/C/Foo.app/Info.plist",
            {{kQXBundleVersion, Value::string("1.2")},
             {kQXBundleIdentifier, Value::string("org.foo")},
             {kQXBundleShortVersionString, Value::integer(7)},
             {"Other", Value::string("not copied")}});
  makeItem("C/BriscaMetadata.plist", "any bytes");
  const Painter painter;
  EXPECT_TRUE(run());
  ASSERT_EQ(installer.installations.size(), 2U);
  const FakeInstaller::Installation& placeholder = installer.installations[0];
  EXPECT_EQ(placeholder.url.lastPathComponent(), "org.foo.app");
  EXPECT_EQ(placeholder.entries, (std::vector<std::string>{"Icon.png", "Info.plist"}));
  EXPECT_EQ(placeholder.info, (Dictionary{{kQXBundleIdentifier, Value::string("org.foo")},
                                          {kQXBundleVersion, Value::string("1.2")},
                                          {kQXBundleShortVersionString, Value::integer(7)},
                                          {kQXBundleIconFile, Value::string("Icon.png")}}));
  EXPECT_EQ(placeholder.options, (Dictionary{{kAppInstallTypeKey, Value::unsignedInteger(6)},
                                             {kAppPackageTypeKey, Value::string("Placeholder")},
                                             {"SkipBlacklist", Value::boolean(true)},
                                             {kQXBundleIdentifier, Value::string("org.foo")},
                                             {kAppBriscaMetadataKey, Value::data("any bytes")}}));
  EXPECT_FALSE(exists(placeholder.url.fileSystemRepresentation()));
  EXPECT_EQ(installer.installations[1].options,
            (Dictionary{{kAppInstallTypeKey, Value::unsignedInteger(6)},
                        {kAppPackageTypeKey, Value::string("Customer")},
                        {"VerifyForMigrator", Value::boolean(true)},
                        {"SkipBlacklist", Value::boolean(true)},
                        {kQXBundleIdentifier, Value::string("org.foo")}}));
  EXPECT_TRUE(lines().empty());
}

TEST_F(Placeholder, DoesWithoutIconAndMetadata) {
  makeApplication("C", "org.foo");
  ASSERT_EQ(0, mkfifo(inApplications("C/BriscaMetadata.plist").c_str(), 0600));
  run();
  ASSERT_FALSE(installer.installations.empty());
  const FakeInstaller::Installation& placeholder = installer.installations[0];
  EXPECT_EQ(placeholder.entries, (std::vector<std::string>{"Info.plist"}));
  EXPECT_FALSE(placeholder.info.get(kQXBundleIconFile));
  EXPECT_FALSE(placeholder.options.get(kAppBriscaMetadataKey));
  EXPECT_TRUE(loggedBeginningWith("3 Failed to read $A/C/BriscaMetadata.plist : "));
  EXPECT_TRUE(logged("3 Failed to create icon from bundle QXBundle $A/C/Foo.app/"));
  EXPECT_TRUE(loggedBeginningWith("3 Writing placeholder icon for app org.foo to "));
}

TEST_F(Placeholder, NeverLeavesItsDirectory) {
  for (const char* identifier : {"", "..", "../../x"}) {
    makeBundle("C", "Foo.app", "x");
    makeMarker("C", markerFor("C", "Foo.app", identifier));
    hostLog.lines.clear();
    EXPECT_FALSE(run());
    EXPECT_TRUE(installer.installations.empty());
    EXPECT_TRUE(lines()[0].starts_with("3 Failed to create staged placeholder directory at "))
        << lines()[0];
    EXPECT_TRUE(exists(inApplications("C/Foo.app/main")));
  }
}

}  // namespace pallion::test
