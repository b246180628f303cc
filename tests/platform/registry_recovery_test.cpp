#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/registry_change.h"
#include "platform/uuid.h"
#include "tests/helpers/mounts.h"
#include "tests/platform/registry_fixture.h"

namespace pallion::test {
namespace {

// Runs `body` in a child that is killed before its call number `fatal` of those that change
// something; false when it ended before that.
bool isKilled(int fatal, const std::function<void()>& body) {
  const std::set<uint64_t> changing = {SYS_rename,   SYS_renameat, SYS_renameat2, SYS_mkdir,
                                       SYS_mkdirat,  SYS_unlink,   SYS_unlinkat,  SYS_rmdir,
                                       SYS_linkat,   SYS_write,    SYS_pwrite64,  SYS_ftruncate,
                                       SYS_setxattr, SYS_lsetxattr};
  const pid_t child = fork();
  if (child == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    body();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  // Without it the stops at system calls tell nothing about the call.
  ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD);
  while (fatal > 0) {
    ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    waitpid(child, &status, 0);
    if (!WIFSTOPPED(status)) return false;
    __ptrace_syscall_info info{};
    ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
    fatal -= info.op == PTRACE_SYSCALL_INFO_ENTRY && changing.contains(info.entry.nr) ? 1 : 0;
  }
  kill(child, SIGKILL);
  waitpid(child, &status, 0);
  return true;
}

class RegistryRecovery : public RegistryTest {
 protected:
  // An old container, whose bundle a run brings into the new layout.
  void makeOld() const {
    makeBundle(root_ / "old/A.app", {"com.a", "2", "Run", {"group.a"}});
    makeBundle(root_ / "old/V.vpnplugin", {"com.v", "2", "Run", {"group.a"}});
    root_.makeFile("old/GeoJSON", "geo");
    root_.makeFile("harbor/kept", "data");
  }
  void moveIfThere(const std::string& from, const std::string& to) const {
    std::error_code missing;
    std::filesystem::rename(root_ / from, root_ / to, missing);
  }
  // Goes on wherever an earlier run ended. False when the registry refuses something.
  bool run() {
    if (!registry_->applicationIsInstalled("com.a") && !installPlaceholder("com.a", "meta").empty())
      return false;
    if (!registry_->proxyForIdentifier("com.a")) return false;
    std::filesystem::create_directories(root_ / "old/Staging/Payload");
    moveIfThere("old/A.app", "old/Staging/Payload/A.app");
    moveIfThere("old/V.vpnplugin", "old/Staging/Payload/V.vpnplugin");
    moveIfThere("old/GeoJSON", "old/Staging/GeoJSON");
    const bool installed = installBundle(root_ / "old/Staging", "com.a").empty() &&
                           registry_->registerSafeHarbor(root_ / "harbor", "com.a", 2, nullptr);
    registry_->close();
    return installed;
  }
};

TEST_F(RegistryRecovery, ARunThatWasKilledAnywhereEndsLikeAnUndisturbedOne) {
  if (!canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  EXPECT_TRUE(runInMountNamespace([this] {
    const Mount quick = Mount::tmpfs(root_.path());
    ASSERT_TRUE(quick.mounted());
    makeOld();
    ASSERT_TRUE(run());
    const TreeSnapshot undisturbed = newLayout();
    ASSERT_TRUE(undisturbed.count("Containers/Bundle/bundle of com.a/V.vpnplugin/Run"));
    int kills = 0;
    int unreadable = 0;
    for (bool killed = true; killed; ++kills) {
      SCOPED_TRACE("killed at change " + std::to_string(kills + 1));
      for (const char* part : {"private", "old", "harbor", "tmp"})
        std::filesystem::remove_all(root_ / part);
      makeOld();
      killed = isKilled(kills + 1, [this] { run(); });
      // Who only reads finds the harbor before anything is mended, but for a database that has to
      // be mended first.
      const auto harbors =
          Registry::atRoot(root_.url(), Registry::Access::kReadOnly)->allSafeHarbors(nullptr);
      unreadable += !harbors;
      ASSERT_TRUE(exists(root_ / "harbor") || !harbors ||
                  (!harbors->empty() && exists(harbors->front().path)));
      reopen();
      ASSERT_TRUE(run());
      ASSERT_EQ(difference(undisturbed, newLayout()), "");
      ASSERT_FALSE(exists(root_ / "harbor") || exists(root_ / "old/Staging"));
    }
    EXPECT_GT(kills, 100);
    EXPECT_LT(unreadable, 10);
    registry_->close();
  }));
}

TEST_F(RegistryRecovery, IncomingIsCompletedOrRemovedAndNothingElse) {
  ASSERT_EQ(installBundle(makeStaging("staging", "A.app", {"com.a"}), "com.a"), "");
  const std::string container = proxy("com.a").bundleContainerURL()->lastPathComponent();
  registry_->close();
  const TreeSnapshot before = newLayout();
  // Recorded, but not in its place, and arranged in part.
  const std::string back = containers("/Incoming/bundle." + container);
  std::filesystem::rename(containers("/Bundle/" + container), back);
  std::filesystem::create_directory(back + "/Payload");
  std::filesystem::rename(back + "/A.app", back + "/Payload/A.app");
  // What no commit knows.
  for (const char* name : {"placeholder.", "data.", "group.", "copy."}) {
    makeBundle(containers("/Incoming/" + (name + makeUUID()) + "/X.app"), {"com.x"});
  }
  std::ofstream(containers("/Incoming/stray")) << "x";
  const std::string foreign = containers("/Bundle/" + makeUUID());
  std::filesystem::create_directory(foreign);
  // Taken over, not recorded: one is complete, one can't be told.
  makeBundle(containers("/Incoming/bundle." + makeUUID() + "/Payload/T.app"), {"com.taken", "4"});
  const std::string unclear = containers("/Incoming/bundle." + makeUUID());
  std::filesystem::create_directories(unclear + "/Payload/U.app");
  reopen();
  EXPECT_TRUE(registry_->applicationIsInstalled("com.taken"));
  EXPECT_EQ(proxy("com.taken").version(), "4");
  EXPECT_TRUE(proxy("com.taken").foundBackingBundle());
  EXPECT_FALSE(registry_->applicationIsInstalled("com.x"));
  EXPECT_EQ(namesIn(containers("/Incoming")), Strings{std::filesystem::path(unclear).filename()});
  EXPECT_TRUE(exists(unclear + "/Payload/U.app"));
  EXPECT_TRUE(exists(foreign));
  const TreeSnapshot after = newLayout();
  for (const auto& [path, line] : before)
    EXPECT_EQ(after.count(path) ? after.at(path) : "", line) << path;
}

TEST_F(RegistryRecovery, MetadataThatCannotBeHandedOnStaysWithItsContainer) {
  RegistryContainers directories(root_.url());
  root_.makeDirectory("private/var/palliond/Containers");
  root_.makeLink("private/var/palliond/Containers/Bundle", root_.makeDirectory("elsewhere"));
  std::filesystem::create_directories(containers("/Bundle/OLD/A.app"));
  root_.makeFile("private/var/palliond/Containers/Bundle/OLD/GeoJSON", "geo");
  const std::string heir =
      root_.makeFile("private/var/palliond/Containers/Bundle/NEW", "no directory");
  const TrashRow trash{"OLD", TrashRow::Kind::kBundleContainer, "NEW"};
  EXPECT_FALSE(RegistryChange::dispose(directories, trash, "test"));
  EXPECT_EQ(readAll(containers("/Bundle/OLD/GeoJSON")), "geo");
  std::filesystem::remove(heir);
  std::filesystem::create_directory(heir);
  EXPECT_TRUE(RegistryChange::dispose(directories, trash, "test"));
  EXPECT_EQ(readAll(heir + "/GeoJSON"), "geo");
  EXPECT_EQ(namesIn(containers("/Bundle")), Strings{"NEW"});
}

TEST_F(RegistryRecovery, ADatabaseThatCannotBeReadIsRefusedAndKept) {
  const std::string database = library("/registry.sqlite");
  ASSERT_EQ(installPlaceholder("com.a"), "");
  registry_->close();
  const std::string good = readAll(database);
  std::string page = good;
  page.replace(page.size() / 2, 4096, std::string(4096, '\x5a'));
  const std::pair<const char*, std::string> kCases[] = {{"no database", "something else entirely"},
                                                        {"page", page},
                                                        {"truncated", good.substr(0, 4096)},
                                                        {"empty", ""}};
  for (const auto& [what, content] : kCases) {
    SCOPED_TRACE(what);
    std::ofstream(database, std::ios::binary) << content;
    reopen();
    EXPECT_FALSE(registry_->applicationIsInstalled("com.a"));
    EXPECT_FALSE(registry_->proxyForIdentifier("com.a"));
    EXPECT_EQ(installPlaceholder("com.b"), "RegistryUnavailable");
    EXPECT_TRUE(exists(root_ / "tmp/com.b.app"));
    root_.makeFile("harbor/kept");
    EXPECT_FALSE(registry_->registerSafeHarbor(root_ / "harbor", "com.a", 2, nullptr));
    EXPECT_FALSE(registry_->updateContainerDataProtection({}));
    Error error;
    EXPECT_FALSE(registry_->allProxies(&error));
    EXPECT_NE(error.localizedDescription().find(database), std::string::npos)
        << error.localizedDescription();
    registry_->close();
    EXPECT_EQ(readAll(database), content);
    EXPECT_TRUE(exists(root_ / "harbor/kept"));
  }
  std::ofstream(database, std::ios::binary) << good;
  EXPECT_TRUE(registry_->applicationIsInstalled("com.a"));
}

TEST_F(RegistryRecovery, ReadingChangesNothing) {
  registry_ = Registry::atRoot(root_.url(), Registry::Access::kReadOnly);
  makeBuiltIn("com.builtin", "3");
  // Nothing was ever written; then what a killed process has left.
  for (const bool written : {false, true}) {
    if (written) {
      const pid_t child = fork();
      if (child == 0) {
        reopen();
        installPlaceholder("com.a");
        std::filesystem::create_directory(containers("/Incoming/data." + makeUUID()));
        _exit(0);
      }
      waitpid(child, nullptr, 0);
      ASSERT_GT(std::filesystem::file_size(library("/registry.sqlite-wal")), 0U);
    }
    const TreeSnapshot before = snapshotTree(root_.path());
    const auto proxies = registry_->allProxies(nullptr);
    ASSERT_TRUE(proxies);
    EXPECT_EQ(proxies->size(), written ? 2U : 1U);
    EXPECT_EQ(registry_->applicationIsInstalled("com.a"), written);
    EXPECT_EQ(proxy("com.a").dataContainerURL().has_value(), written);
    EXPECT_TRUE(registry_->allSafeHarbors(nullptr));
    EXPECT_FALSE(registry_->updateContainerDataProtection({}));
    EXPECT_FALSE(registry_->registerSafeHarbor(root_ / "Applications", "com.a", 2, nullptr));
    registry_->close();
    EXPECT_EQ(difference(before, snapshotTree(root_.path())), "");
  }
  EXPECT_EQ(installPlaceholder("com.b"), "RegistryReadOnly");
}

}  // namespace
}  // namespace pallion::test
