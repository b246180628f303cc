#include <functional>
#include <optional>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "platform/tree_copy.h"
#include "tests/AppMigrator/migrator_fixture.h"
#include "tests/helpers/child_process.h"
#include "tests/helpers/leased_file.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/refused_calls.h"
#include "tests/helpers/refusing_remove.h"

namespace pallion::test {

namespace {

class Disturbed : public MigratorFixture {
 protected:
  // One application "org.foo" in the container "C" with one group container.
  void layOut() {
    for (const char* path : {kApplications, "new", "groups", kInstallMap}) remove(root / path);
    installer.installed.clear();
    installer.groups = {{"org.foo", {"g"}}};
    makeApplication("C", "org.foo");
    root.makeFile("groups/1/shared", "shared");
    root.makeFile("groups/file", "no directory");
    root.makeFile("elsewhere/canary", "c");
    root.makeFile("new/group/g/sub/own", "own");
    mapGroupTo("groups/1");
    hostLog.lines.clear();
  }

  void mapGroupTo(const std::string& path) const { makeInstallMap({{"g", groupAt(path)}}); }

  // What is to be moved is in the old place or in the new one, whole.
  void expectNothingLost() const {
    EXPECT_TRUE(readAll(inApplications("C/Documents/letter")) == "org.foo" ||
                readAll(installer.dataContainer("org.foo") + "/Documents/letter") == "org.foo");
    EXPECT_TRUE(readAll(root / "groups/1/shared") == "shared" ||
                readAll(root / "new/group/g/shared") == "shared");
    EXPECT_EQ(readAll(root / "groups/file"), "no directory");
    EXPECT_EQ(readAll(root / "elsewhere/canary"), "c");
  }
};

// As long as it lives, the process has nothing of a resource: RLIMIT_FSIZE, each write to a file
// answers EFBIG; RLIMIT_NOFILE, each opening answers EMFILE.
class Exhausted {
 public:
  explicit Exhausted(__rlimit_resource_t resource) : resource_(resource) {
    getrlimit(resource_, &before_);
    const rlimit none{0, before_.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(resource_, &none);
  }
  Exhausted(const Exhausted&) = delete;
  Exhausted& operator=(const Exhausted&) = delete;
  ~Exhausted() {
    setrlimit(resource_, &before_);
    signal(SIGXFSZ, SIG_DFL);
  }

 private:
  __rlimit_resource_t resource_;
  rlimit before_{};
};

}  // namespace

TEST_F(Disturbed, FailuresAreToldAndNothingIsLost) {
  const std::string c = std::string(kApplications) + "/C";
  const auto mark = [&](std::string_view key, const std::string& path) {
    Dictionary marker = markerFor("C", "Foo.app", "org.foo");
    marker.set(key, Value::string(root / path));
    makeMarker("C", marker);
  };
  const struct {
    const char* name;
    std::function<void()> make;
    bool result;
    std::optional<bool> remains;  // the container; either when none
    std::string line;
    std::string refusedRemoval = "";
  } rows[] = {
      {"staging is a link", [&] { root.makeLink(c + "/Staging", root / "elsewhere"); }, true, false,
       "3 Found symlink at $A/C/Staging/ ; removing"},
      {"payload is a link", [&] { root.makeLink(c + "/Staging/Payload", root / "elsewhere"); },
       true, false, "3 Found symlink at $A/C/Staging/Payload/ ; removing"},
      {"bundle in the way", [&] { makeItem("C/Staging/Payload/Foo.app/x"); }, false, false,
       "3 Failed to move bundle from file://$A/C/Foo.app/ to "},
      {"plug-in in the way",
       [&] {
         makeBundle("C", "Bar.vpnplugin", "org.bar");
         makeItem("C/Staging/Payload/Bar.vpnplugin/x");
       },
       false, false, "3 Failed to move vpn bundle from "},
      {"container stays", [] {}, false, true,
       "3 Failed to remove container $A/C/ : ", "/Applications/C"},
      {"old layout stays", [] {}, true, false, "3 Failed to remove $A/ : ", "/Applications"},
      {"install map stays", [] {}, true, false,
       "3 Failed to remove $R/private/var/mobile/Library/Caches/", ".pallion.plist"},
      {"old group container stays", [] {}, true, false,
       "3 Failed to remove old group container at $R/groups/1/ : ", "/groups/1"},
      {"group is a file", [&] { mapGroupTo("groups/file"); }, true, false,
       "3 Failed to get all urls in source group container $R/groups/file/ : "},
      {"group is its destination", [&] { mapGroupTo("new/group/g"); }, true, false,
       "3 Source group container at $R/new/group/g/ lies in "},
      {"group lies in its destination", [&] { mapGroupTo("new/group/g/sub"); }, true, false,
       "3 Source group container at $R/new/group/g/sub/ lies in "},
      {"no groups", [&] { installer.groups.clear(); }, true, false,
       "5 No group containers to migrate for org.foo"},
      {"bundle without list",
       [&] {
         makeMarker("C", markerFor("C", "Foo.app", "org.foo"));
         remove(inApplications("C/Foo.app/Info.plist"));
       },
       false, true, "3 Failed to get bundle info dictionary for bundle $A/C/Foo.app/"},
      {"marker of another container", [&] { mark(kContainerPathKey, "elsewhere"); }, false, true,
       "3 Migration marker of $A/C/ speaks of another place"},
      {"marker with another bundle", [&] { mark(kBundlePathKey, "elsewhere/Foo.app"); }, false,
       true, "3 Migration marker of $A/C/ speaks of another place"},
      {"marker with another plug-in", [&] { mark(kSecondBundlePathKey, "elsewhere/V.vpnplugin"); },
       false, true, "3 Migration marker of $A/C/ speaks of another place"},
      {"container of the same identifier", [&] { makeApplication("D", "org.foo"); }, false,
       std::nullopt, "3 Another container of org.foo was migrated already; skipping "},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    layOut();
    row.make();
    {
      const RefusingRemove refusing(row.refusedRemoval);
      EXPECT_EQ(run(), row.result);
    }
    EXPECT_TRUE(loggedBeginningWith(row.line)) << testing::PrintToString(lines(false));
    const bool remains = exists(inApplications("C"));
    EXPECT_EQ(remains, row.remains.value_or(remains));
    // Removal begins with the marker.
    if (row.refusedRemoval == "/Applications/C") {
      EXPECT_FALSE(exists(inApplications("C/" + std::string(kMigrationMarkerName))));
    }
    EXPECT_EQ(readAll(root / "new/group/g/sub/own"), "own");
    expectNothingLost();
  }
}

TEST_F(Disturbed, OldLayoutOfNothingButLinksIsRemovedAtOnceWhereThatCanBe) {
  for (const std::string name : {"/Applications", ".pallion.plist", ""}) {
    layOut();
    remove(inApplications("C"));
    root.makeLink(std::string(kApplications) + "/link", "/nowhere");
    const RefusingRemove refusing(name);
    EXPECT_TRUE(PLAppMigrator(configuration).init());
    EXPECT_EQ(exists(root / kApplications), name == "/Applications");
    EXPECT_EQ(exists(root / kInstallMap), name == ".pallion.plist");
    const std::string place = name == "/Applications" ? "$A" : "$R/" + std::string(kInstallMap);
    EXPECT_NE(name.empty(), loggedBeginningWith("3 Failed to remove " + place));
  }
}

TEST_F(Disturbed, WhatCannotBeReadJustNowIsNotAbsent) {
  const std::pair<std::string, std::string> rows[] = {
      {kInstallMap, "3 Group containers of org.foo are not known"},
      {std::string(kApplications) + "/C/" + std::string(kMigrationMarkerName),
       "3 Failed to load migration marker file from "}};
  for (const auto& [file, line] : rows) {
    layOut();
    // Nothing but the marker tells what the second one was.
    if (file != kInstallMap) {
      makeMarker("C", markerFor("C", "Foo.app", "org.foo"));
      remove(inApplications("C/Foo.app"));
    }
    {
      const LeasedFile leased(root / file);
      if (!leased.held()) GTEST_SKIP() << "no leases on this file system";
      EXPECT_FALSE(run());
    }
    EXPECT_TRUE(loggedBeginningWith(line)) << testing::PrintToString(lines(false));
    EXPECT_TRUE(exists(inApplications("C")));
    EXPECT_TRUE(exists(root / "groups/1/shared"));
    EXPECT_TRUE(exists(root / kInstallMap));
    expectNothingLost();
  }
}

// Without room for the marker the run goes on, without room for the placeholder it doesn't.
TEST_F(Disturbed, WithoutRoom) {
  const Painter painter;
  for (const bool known : {true, false}) {
    layOut();
    if (known) installer.installed = {"org.foo"};
    {
      const Exhausted exhausted(RLIMIT_FSIZE);
      EXPECT_EQ(run(), known);
    }
    EXPECT_TRUE(loggedBeginningWith("3 Failed to write out container marker dictionary... "));
    EXPECT_NE(known, loggedBeginningWith("3 Failed to write image data to "));
    EXPECT_NE(known, loggedBeginningWith("3 Failed to write placeholder Info"));
    EXPECT_EQ(exists(inApplications("C")), !known);
    expectNothingLost();
  }
}

// A marker that the power may take back from under its name is none.
TEST_F(Disturbed, WithoutWritingOut) {
  layOut();
  installer.installed = {"org.foo"};
  EXPECT_TRUE(runInChild([this] {
    ASSERT_TRUE(refuseCalls({SYS_sync_file_range, SYS_fdatasync}, EIO));
    EXPECT_TRUE(run());
    EXPECT_TRUE(loggedBeginningWith("3 Failed to write out container marker dictionary... "));
  }));
}

// A directory that can't be listed just now is neither empty nor without a bundle.
TEST_F(Disturbed, WithoutDescriptors) {
  layOut();
  PLAppMigrator migrator(configuration);
  ASSERT_TRUE(migrator.init());
  {
    const Exhausted exhausted(RLIMIT_NOFILE);
    migrator.performMigration();
  }
  EXPECT_TRUE(loggedBeginningWith("3 Failed to get URLs in container $A/C/ : "));
  EXPECT_TRUE(loggedBeginningWith("3 Failed to determine if any items were "));
  EXPECT_EQ(readAll(inApplications("C/Documents/letter")), "org.foo");

  class Exhausting : public FakeInstaller {
   public:
    using FakeInstaller::FakeInstaller;
    bool installApplication(const URL& url, const Dictionary& options, Error* error,
                            const StatusBlock& block) override {
      const bool result = FakeInstaller::installApplication(url, options, error, block);
      if (*options.getString(kAppPackageTypeKey) != kAppPackageTypePlaceholder)
        exhausted.emplace(RLIMIT_NOFILE);
      return result;
    }
    std::optional<Exhausted> exhausted;
  } exhausting(root);
  layOut();
  exhausting.groups = {{"org.foo", {"g"}}};
  EXPECT_FALSE(run());
  exhausting.exhausted.reset();
  EXPECT_TRUE(loggedBeginningWith("3 Failed to get all urls in source group "));
  EXPECT_TRUE(loggedBeginningWith("3 Failed to enumerate container $A/C/ for "));
  EXPECT_TRUE(exists(inApplications("C")));
  expectNothingLost();
}

// Copies that may not be on their medium keep their sources.
TEST_F(Disturbed, AcrossVolumesSourcesGoOnlyAfterTheSync) {
  if (!canMount()) GTEST_SKIP() << "mounting is not permitted here";
  class FailingSync : public TreeCopy {
   public:
    explicit FailingSync(std::string_view failing) : failing_(failing) { replace(this); }
    ~FailingSync() override { replace(nullptr); }
    int copy(const char* source, const char* destination) override {
      return system().copy(source, destination);
    }
    int syncVolume(const char* path) override { return system().syncVolume(path); }
    int syncCopies(const char* path) override {
      if (std::string_view(path).find(failing_) != std::string_view::npos) return errno = EIO, -1;
      return system().syncCopies(path);
    }

   private:
    std::string_view failing_;
  };
  const struct {
    std::string_view failing;
    bool result;
    bool groupRemains;
    const char* line;
  } rows[] = {
      {"/data/", false, true, "3 Failed to move file://$A/C/ to "},
      {"/group/", true, true, "3 Failed to move item $R/groups/1/ to "},
      {"nothing", true, false, "5 Removing container for org.foo at "},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.failing);
    layOut();
    EXPECT_TRUE(runInMountNamespace([&] {
      const Mount data = Mount::tmpfs(root.makeDirectory("new/data"), "size=1m");
      const Mount group = Mount::tmpfs(root.makeDirectory("new/group"), "size=1m");
      ASSERT_TRUE(data.mounted() && group.mounted());
      const FailingSync failing(row.failing);
      EXPECT_EQ(run(), row.result);
      EXPECT_TRUE(loggedBeginningWith(row.line)) << testing::PrintToString(lines(false));
      EXPECT_EQ(exists(inApplications("C/Documents/letter")), !row.result);
      EXPECT_EQ(exists(root / "groups/1/shared"), row.groupRemains);
      expectNothingLost();
    }));
  }
}

}  // namespace pallion::test
