#include <functional>

#include "platform/extended_attributes.h"
#include "platform/set_aside.h"
#include "tests/AppMigrator/migrator_fixture.h"
#include "tests/helpers/refusing_remove.h"

namespace pallion::test {

namespace {

const std::string kPrefix{kSetAsidePrefix};
const std::string kAside = kPrefix + "01234567-89AB-4CDE-8F01-23456789ABCD";

class Container : public MigratorFixture {
 protected:
  [[nodiscard]] std::string newLetter(const std::string& identifier) const {
    return readAll(installer.dataContainer(identifier) + "/Documents/letter");
  }
};

Dictionary status(const char* name) {
  return {{"Error", Value::string(name)},
          {"ErrorDescription", Value::string("why")},
          {"ErrorDetail", Value::string("more")}};
}

}  // namespace

// What becomes of the old container and of the result, for every way in which a container can end.
TEST_F(Container, EndsAsTheDecisionTableSays) {
  const std::string named =
      "Installation of $A/C/Foo.app/ failed with Pallion error why (SomeError : more)";
  const struct {
    const char* name;
    std::function<void()> make;
    bool result;
    bool remains;
    std::string errors;  // before the one that says that it failed
  } rows[] = {
      {"everything succeeds", [] {}, true, false, ""},
      {"placeholder refused", [&] { installer.refusePlaceholders = true; }, false, true,
       "Failed to install placeholder for org.foo: {LocalizedDescription = refused}"},
      {"no record", [&] { installer.knowNoProxy = true; }, false, true,
       "Failed to get bundle proxy for identifier org.foo"},
      {"no data container", [&] { installer.giveNoDataContainer = true; }, false, true,
       "Failed to get data container URL for org.foo\nProxy had bundle identifier org.foo\n"
       "Proxy had bundle type App\nProxy had bundle URL (null)\n"
       "Proxy had bundle container URL (null)\nProxy did not have backing bundle"},
      {"bundle refused with a name",
       [&] {
         installer.refuseBundles = true;
         installer.statuses = {Dictionary(), status("SomeError")};
       },
       false, false, named + "\nFailed to install file://$A/C/Staging/ : FakeDomain 7: refused"},
      // This installer leaves what it refused.
      {"older than the system's own",
       [&] {
         installer.refuseBundles = true;
         installer.statuses = {status("ApplicationAlreadyInstalled")};
       },
       false, true, "Found missed items in $A/C/ for org.foo: (file://$A/C/Staging/)"},
      {"status but success", [&] { installer.statuses = {status("SomeError")}; }, true, false,
       named},
      {"payload can't be made", [&] { makeItem("C/Staging", "in the way"); }, false, false,
       "Failed to create file://$A/C/Staging/Payload/ : POSIX 20: mkpath_np of "
       "$A/C/Staging/Payload/ failed: Not a directory"},
      {"no groups to be had",
       [&] {
         installer.giveNoGroups = true;
         makeInstallMap({{"g", Value::integer(1)}});
       },
       false, true, "Failed to get group container URLs for installed org.foo"},
      {"known name but for its case", [&] { makeItem("C/com.orlix.pallion.Placeholder", "x"); },
       false, true,
       "Found missed items in $A/C/ for org.foo: (file://$A/C/com.orlix.pallion.Placeholder)"},
      {"names that never count",
       [&] {
         makeItem("C/com.orlix.pallion.migration_marker");
         makeItem("C/com.orlix.pallion.placeholder");
       },
       true, false, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    for (const char* path : {kApplications, "new", kInstallMap}) remove(root / path);
    installer.installed.clear();
    installer.refusePlaceholders = installer.refuseBundles = installer.knowNoProxy = false;
    installer.giveNoDataContainer = installer.giveNoGroups = false;
    installer.statuses.clear();
    makeApplication("C", "org.foo");
    row.make();
    hostLog.lines.clear();
    EXPECT_EQ(run(), row.result);
    EXPECT_EQ(exists(inApplications("C")), row.remains);
    // A container that stays keeps its marker.
    EXPECT_EQ(exists(inApplications("C/com.orlix.pallion.container_migrator.plist")), row.remains);
    EXPECT_EQ(itemErrors(), row.errors + (row.errors.empty() || row.result ? "" : "\n") +
                                (row.result ? "" : "Migration of org.foo at $A/C/Foo.app/ failed"));
    // The letter is in the old place or in the new one.
    EXPECT_EQ(readAll(inApplications("C/Documents/letter")) + newLetter("org.foo"), "org.foo");
  }
}

TEST_F(Container, PlaceholderBundleMovesDataAlone) {
  for (const bool known : {true, false}) {
    makeApplication("C", "org.foo");
    const uint32_t mark = 1;
    ASSERT_EQ(
        0, ExtendedAttributes::current().set(inApplications("C/Foo.app").c_str(),
                                             "com.orlix.palliond.placeholder", &mark, sizeof mark));
    makeItem("C/stray", "no missed-items check is made");
    installer.installed.clear();
    if (known) installer.installed = {"org.foo"};
    installer.installations.clear();
    EXPECT_TRUE(run());
    EXPECT_EQ(installer.installations.size(), known ? 0U : 1U);
    EXPECT_EQ(newLetter("org.foo"), "org.foo");
    EXPECT_FALSE(exists(inApplications("C")));
  }
}

TEST_F(Container, OldItemsReplaceTheInstallersWholly) {
  makeApplication("C", "org.foo");
  makeItem("C/Tillbox/receipt", "r");
  root.makeLink(std::string(kApplications) + "/C/tmp", "/nowhere");
  root.makeFile("new/data/org.foo/Documents/installers", "gone afterwards");
  root.makeFile("new/data/org.foo/Library/installers", "stays: there is no old one");
  EXPECT_TRUE(run());
  const std::string data = installer.dataContainer("org.foo");
  EXPECT_EQ(newLetter("org.foo"), "org.foo");
  EXPECT_FALSE(exists(data + "/Documents/installers"));
  EXPECT_TRUE(exists(data + "/Library/installers"));
  EXPECT_TRUE(exists(data + "/Tillbox/receipt"));
  EXPECT_TRUE(exists(data + "/tmp"));  // the link itself
}

TEST_F(Container, AFailedMoveLeavesTheRestAndLaterRunsFinish) {
  makeApplication("C", "org.foo");
  makeItem("C/Library/kept", "k");
  makeItem("C/tmp/scrap", "s");
  root.makeFile("new/data/org.foo/Library/blocking", "b");
  {
    const RefusingRemove refusing("/org.foo/Library");  // what is in the way stays
    EXPECT_FALSE(run());
  }
  EXPECT_EQ(newLetter("org.foo"), "org.foo");
  EXPECT_TRUE(exists(inApplications("C/Library/kept")));
  EXPECT_TRUE(exists(inApplications("C/tmp/scrap")));
  EXPECT_TRUE(
      loggedBeginningWith("3 Failed to move file://$A/C/Library/ to "
                          "file://$R/new/data/org.foo/Library/ migrating for org.foo : POSIX 39"));
  EXPECT_TRUE(run());
  EXPECT_EQ(readAll(installer.dataContainer("org.foo") + "/Library/kept"), "k");
  EXPECT_EQ(newLetter("org.foo"), "org.foo");
}

// What an interrupted move across volumes leaves is not user data any more: it is swept, never
// missed, never moved.
TEST_F(Container, LeftoversOfInterruptedMovesAreSwept) {
  makeApplication("C", "org.foo");
  makeItem("C/" + kAside + "/half", "removed");
  root.makeFile("old-group/" + kAside + "/half", "removed");
  root.makeFile("old-group/shared", "kept");
  makeInstallMap({{"g", groupAt("old-group")}});
  installer.groups["org.foo"] = {"g"};
  installer.refusePlaceholders = true;
  EXPECT_FALSE(run());
  EXPECT_TRUE(exists(inApplications("C/Documents/letter")));
  EXPECT_FALSE(exists(inApplications("C/" + kAside)));
  installer.refusePlaceholders = false;
  EXPECT_TRUE(run());
  EXPECT_EQ(readAll(root / "new/group/g/shared"), "kept");
  EXPECT_FALSE(exists(root / ("new/group/g/" + kAside)));
  EXPECT_FALSE(exists(root / "old-group"));
  // A name that only looks like one is an item like any other.
  makeApplication("D", "org.bar");
  makeItem("D/" + kPrefix + "x", "stray");
  EXPECT_FALSE(run());
  EXPECT_TRUE(exists(inApplications("D/" + kPrefix + "x")));
}

// One that can't be removed does not keep the container: what it held stands in the new layout.
TEST_F(Container, LeftoversThatStayCountAsNothingMissed) {
  makeApplication("C", "org.foo");
  makeItem("C/" + kAside + "/half");
  const RefusingRemove refusing(kAside);
  EXPECT_TRUE(run());
  EXPECT_EQ(newLetter("org.foo"), "org.foo");
}

}  // namespace pallion::test
