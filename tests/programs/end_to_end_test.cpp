#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "foundation/url.h"
#include "platform/recursive_remove.h"
#include "platform/tree_copy.h"
#include "tests/helpers/child_process.h"
#include "tests/helpers/device_state.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

namespace {

const std::string kPrograms = std::string(PALLION_BINARY_DIR) + "/bin/";

void makeLayout(const std::string& root, const std::string& options) {
  std::vector<std::string> arguments = {kPrograms + "make-old-layout", "--root", root};
  std::istringstream words(options);
  for (std::string word; words >> word;) arguments.push_back(word);
  ChildProcess::Setup setup;
  setup.arguments = arguments;
  const ProcessOutcome outcome = runProcess(setup);
  ASSERT_EQ(outcome.status, 0) << outcome.err;
}

ProcessOutcome migrate(const std::string& root, const std::vector<std::string>& options = {},
                       const std::vector<std::string>& wrapper = {}) {
  ChildProcess::Setup setup;
  setup.arguments = wrapper;
  for (const std::string& argument : {kPrograms + "migration-host", std::string("--root"), root}) {
    setup.arguments.push_back(argument);
  }
  setup.arguments.insert(setup.arguments.end(), options.begin(), options.end());
  // The leak check needs /proc, which the root has not, and no tracer.
  setup.environment = {"ASAN_OPTIONS=detect_leaks=0"};
  return runProcess(setup);
}

void removeTree(const std::string& path) {
  RemovalState state;
  RecursiveRemove::system().remove(path.c_str(), state);
}

#define SKIP_UNLESS_ROOT() \
  if (!isRoot()) GTEST_SKIP() << "owners and devices of user data need root"

constexpr const char* kSmallLayout =
    "--apps 5 --vpn 1 --groups 3 --harbors 2 --placeholders 1 --files 3 --file-size 100";

bool haveStrace() {
  ChildProcess::Setup setup;
  setup.arguments = {"/usr/bin/strace", "-o", "/dev/null", "true"};
  return access("/usr/bin/strace", X_OK) == 0 && runProcess(setup).status == 0;
}

}  // namespace

TEST(EndToEnd, CarriesEveryByteIntoTheNewLayout) {
  SKIP_UNLESS_ROOT();
  TemporaryRoot device;
  makeLayout(device.path(), "--apps 40 --groups 12 --harbors 5 --vpn 4 --placeholders 5");
  const DeviceState before(device.path());
  EXPECT_GE(before.applications(), 40U);
  const ProcessOutcome outcome = migrate(device.path());
  EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_EQ(before.differenceAfterMigration(device.path()), "");
  // Nothing to do the second time.
  EXPECT_EQ(migrate(device.path()).status, 0);
  EXPECT_EQ(before.differenceAfterMigration(device.path()), "");
}

TEST(EndToEnd, EndsWellWithNothingToMigrate) {
  TemporaryRoot device;
  EXPECT_EQ(migrate(device.path()).status, 0);
}

// Old and new containers, and the group containers, on volumes of their own.
TEST(EndToEnd, CarriesEveryByteAcrossVolumes) {
  if (!canMountImages()) GTEST_SKIP() << "loop devices and mounting are not permitted here";
  TemporaryRoot device;
  TemporaryRoot images;
  EXPECT_TRUE(runInMountNamespace([&] {
    const Mount oldVolume =
        Mount::ext4Image(images / "old", device.makeDirectory("private/var/mobile"), 64);
    const Mount newVolume =
        Mount::ext4Image(images / "new", device.makeDirectory("private/var/palliond"), 64);
    ASSERT_TRUE(oldVolume.mounted() && newVolume.mounted());
    makeLayout(device.path(), "--apps 12 --groups 4 --harbors 3 --vpn 2 --placeholders 2");
    const DeviceState before(device.path());
    const ProcessOutcome outcome = migrate(device.path());
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
    EXPECT_EQ(before.differenceAfterMigration(device.path()), "");
  }));
}

// The host is killed before the Nth call of one kind, for many kinds and many N; the next run must
// end as if nothing had happened.
class Killed : public testing::Test {
 protected:
  // `fresh` puts the layout back to its beginning.
  void sweep(const std::string& root, const DeviceState& before, const std::function<void()>& fresh,
             unsigned growth) {
    // A kill before a call that changes something; calls that only read need no points of their
    // own.
    const char* const kCalls[] = {"rename",   "renameat",  "renameat2", "unlink",    "unlinkat",
                                  "mkdir",    "mkdirat",   "linkat",    "fsync",     "fdatasync",
                                  "pwrite64", "write",     "setxattr",  "fsetxattr", "lsetxattr",
                                  "syncfs",   "ftruncate", "rmdir"};
    int points = 0;
    for (const char* const call : kCalls) {
      unsigned step = 1;
      for (unsigned n = 1;; n += step, step += growth) {
        fresh();
        const std::string injection =
            std::string("inject=") + call + ":signal=SIGKILL:when=" + std::to_string(n);
        const ProcessOutcome killed =
            migrate(root, {"-q"},
                    {"/usr/bin/strace", "-f", "-q", "-o", "/dev/null", "-e",
                     std::string("trace=") + call, "-e", injection});
        if (killed.status == 0) break;  // ran through: there is no Nth call
        ASSERT_TRUE(killed.status == -SIGKILL || killed.status == 128 + SIGKILL)
            << call << " " << n << ": " << killed.status << killed.err;
        ++points;
        const ProcessOutcome again = migrate(root);
        EXPECT_EQ(again.status, 0) << call << " " << n << "\n" << again.out << again.err;
        const std::string differences = before.differenceAfterMigration(root);
        EXPECT_EQ(differences, "") << call << " " << n;
        if (again.status != 0 || !differences.empty()) break;
      }
    }
    RecordProperty("points", points);
    EXPECT_GT(points, 20);
  }
};

TEST_F(Killed, AnywhereTheNextRunFinishes) {
  SKIP_UNLESS_ROOT();
  if (!haveStrace()) GTEST_SKIP() << "strace is not to be had or not permitted here";
  TemporaryRoot parent;
  const std::string original = parent / "original";
  const std::string root = parent / "device";
  makeLayout(original, kSmallLayout);
  const DeviceState before(original);
  sweep(
      root, before,
      [&] {
        removeTree(root);
        ASSERT_EQ(0, TreeCopy::system().copy(original.c_str(), root.c_str()));
      },
      3);
}

TEST_F(Killed, AnywhereAcrossVolumesTheNextRunFinishes) {
  SKIP_UNLESS_ROOT();
  if (!haveStrace() || !canMount()) GTEST_SKIP() << "strace or mounting is not permitted here";
  TemporaryRoot parent;
  const std::string original = parent / "original";
  const std::string root = parent / "device";
  makeLayout(original, kSmallLayout);
  const DeviceState before(original);
  EXPECT_TRUE(runInMountNamespace([&] {
    const Mount device = Mount::tmpfs(parent.makeDirectory("device"), "size=64m");
    ASSERT_TRUE(device.mounted());
    const std::string newLayout = parent.makeDirectory("device/private/var/palliond");
    const Mount newVolume = Mount::tmpfs(newLayout, "size=64m");
    ASSERT_TRUE(newVolume.mounted());
    sweep(
        root, before,
        [&] {
          for (const char* item :
               {"/private/var/mobile", "/private/var/palliond/Library",
                "/private/var/palliond/Containers", "/Applications", "/var", "/tmp"}) {
            removeTree(root + item);
          }
          for (const char* item : {"/private/var/mobile", "/Applications", "/var"}) {
            ASSERT_EQ(0, TreeCopy::system().copy((original + item).c_str(), (root + item).c_str()))
                << item;
          }
        },
        6);
  }));
}

// A full volume fails the containers that no longer fit, and loses nothing; with room, the next run
// finishes.
TEST(EndToEnd, SurvivesAFullDisk) {
  if (!canMount()) GTEST_SKIP() << "mounting is not permitted here";
  TemporaryRoot device;
  EXPECT_TRUE(runInMountNamespace([&] {
    const std::string newLayout = device.makeDirectory("private/var/palliond");
    makeLayout(device.path(), "--apps 10 --files 10 --file-size 30000 --groups 2 --harbors 1");
    const DeviceState before(device.path());
    const Mount newVolume = Mount::tmpfs(newLayout, "size=1500k");
    ASSERT_TRUE(newVolume.mounted());
    const ProcessOutcome full = migrate(device.path());
    EXPECT_EQ(full.status, 1) << full.out << full.err;
    EXPECT_NE(full.out.find("No space left on device"), std::string::npos) << full.out;
    ChildProcess::Setup remount;
    remount.arguments = {"/bin/mount", "-o", "remount,size=64m", newLayout};
    ASSERT_EQ(runProcess(remount).status, 0);
    const ProcessOutcome again = migrate(device.path());
    EXPECT_EQ(again.status, 0) << again.out << again.err;
    EXPECT_EQ(before.differenceAfterMigration(device.path()), "");
  }));
}

TEST(EndToEnd, LeavesAReadOnlyDeviceAlone) {
  if (!canMount()) GTEST_SKIP() << "mounting is not permitted here";
  TemporaryRoot device;
  EXPECT_TRUE(runInMountNamespace([&] {
    makeLayout(device.path(), "--apps 2 --files 2");
    const TreeSnapshot before = snapshotTree(device.path());
    const Mount same = Mount::bind(device.path(), device.path());
    ChildProcess::Setup remount;
    remount.arguments = {"/bin/mount", "-o", "remount,bind,ro", device.path()};
    ASSERT_EQ(runProcess(remount).status, 0);
    const ProcessOutcome outcome = migrate(device.path());
    EXPECT_EQ(outcome.status, 1) << outcome.err;
    EXPECT_NE(outcome.out.find("Read-only file system"), std::string::npos) << outcome.out;
    EXPECT_EQ(difference(before, snapshotTree(device.path())), "");
  }));
}

}  // namespace pallion::test
