#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "foundation/url.h"
#include "tests/helpers/child_process.h"
#include "tests/helpers/device_state.h"
#include "tests/helpers/gated_process.h"
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

size_t entriesOf(const std::string& directory) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

#define SKIP_UNLESS_ROOT() \
  if (!isRoot()) GTEST_SKIP() << "owners and devices of user data need root"

constexpr const char* kSmallLayout =
    "--apps 5 --vpn 1 --groups 3 --harbors 2 --placeholders 1 --files 3 --file-size 100";

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

// Every awkward case that make-old-layout knows ends with its own lines, and loses nothing that
// could be kept.
TEST(EndToEnd, SaysOfEveryAwkwardCaseWhatBecameOfIt) {
  SKIP_UNLESS_ROOT();
  TemporaryRoot device;
  TemporaryRoot outside;
  makeLayout(device.path(),
             "--apps 6 --groups 3 --harbors 2 --vpn 1 --placeholders 1 --mess --seed 1");
  EXPECT_EQ(migrate(device.path(), {"--log", outside / "log"}).status, 1);
  std::istringstream log(readAll(outside / "log"));
  std::vector<std::string> errors;
  bool olderThanBuiltIn = false;
  for (std::string line; std::getline(log, line);) {
    olderThanBuiltIn |=
        line.find("Data migration already happened so we're done here.") != std::string::npos;
    const size_t text = line.find(": PLAppMigrator: ");
    if (line.find(" [3] ") == std::string::npos || text == std::string::npos) continue;
    std::string message = line.substr(text + std::string_view(": PLAppMigrator: ").size());
    static const std::pair<std::regex, const char*> kPlaces[] = {
        {std::regex("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}"), "$$U"},
        {std::regex("/private/var/mobile/Applications"), "$$A"},
        {std::regex("/private/var/mobile/Library"), "$$L"}};
    for (const auto& [place, name] : kPlaces) message = std::regex_replace(message, place, name);
    errors.push_back(std::move(message));
  }
  EXPECT_TRUE(olderThanBuiltIn);
  std::sort(errors.begin(), errors.end());
  const std::vector<std::string> expected = {
      "Could not get identifier for bundle at $A/$U/DamagedInfo.app/",
      "Could not get identifier for bundle at $A/$U/NoIdentifier.app/",
      "Could not get identifier for bundle at $A/$U/NoInfo.app/",
      "Failed to create icon from bundle QXBundle $A/$U/Météo.app/",
      "Failed to create icon from bundle QXBundle $A/$U/NoExecutable.app/",
      "Failed to create staged placeholder directory at "
      "/private/var/palliond/tmp/com.orlix.pallion.migrator/...app/ : "
      "POSIX 22: \"..\" is no plain name",
      "Failed to create staged placeholder directory at "
      "/private/var/palliond/tmp/com.orlix.pallion.migrator/com.example/slash.app/ : POSIX 22: "
      "\"com.example/slash\" is "
      "no plain name",
      "Failed to get harbor info for identifier com.example.awkward.text",
      "Failed to get harbor path from harbor entry for com.example.awkward.pathless : {}",
      "Failed to install file://$A/$U/Staging/ : RegistryErrorDomain 4: "
      "$A/$U/Staging/Payload/NoExecutable.app/NoExecutable: No such file or directory (POSIX 2)",
      "Failed to load migration marker file from "
      "file://$A/$U/com.orlix.pallion.container_migrator.plist",
      "Failed to load migration marker file from "
      "file://$A/$U/com.orlix.pallion.container_migrator.plist",
      "Failed to migrate safe harbor for identifier com.example.awkward.missing at "
      "$L/Pallion/SafeHarbors/missing : (null)",
      "Found missed items in $A/$U/ for com.example.awkward.Missed: (file://$A/$U/forgotten.txt)",
      "Found regular file at $A/stray.txt ; removing",
      "Identifier in harbor map was not string; skipping",
      "Installation of $A/$U/NoExecutable.app/ failed with Pallion error "
      "$A/$U/Staging/Payload/NoExecutable.app/NoExecutable (MissingBundleExecutable : No such file "
      "or directory)",
      "Migration marker was symlink; skipping container "
      "$A/$U/com.orlix.pallion.container_migrator.plist",
      "Migration of .. at $A/$U/Climber.app/ failed",
      "Migration of com.example.awkward.Missed at $A/$U/Missed.app/ failed",
      "Migration of com.example.awkward.NoExecutable at $A/$U/NoExecutable.app/ failed",
      "Migration of com.example/slash at $A/$U/Slash.app/ failed",
      "Missing source group container at $L/GroupContainers/$U/",
      "No app or vpn bundle found in container $A/$U/ ; removing it",
      "No app or vpn bundle found in container $A/$U/ ; removing it",
      "No app or vpn bundle found in container $A/$U/ ; removing it",
      "No app or vpn bundle found in container $A/$U/ ; removing it",
      "Not removing $L/Caches/com.orlix.pallion.plist because 8 items remain unmigrated.",
      "Returning migration failed. Please include the contents of /var/mobile/Library/Logs/Pallion "
      "and /var/Mobile/Library/Logs/Shiftwell in a bug report.",
      "Skipping container with app symlink at $A/$U/Linked.app",
      "VPN plugin was symlink; skipping container $A/$U/Linked.vpnplugin",
      "Writing placeholder icon for app com.example.awkward.NoExecutable to "
      "file:///private/var/palliond/tmp/com.orlix.pallion.migrator/com.example.awkward.NoExecutable.app/"
      "Icon.png failed",
      "Writing placeholder icon for app com.example.weather to "
      "file:///private/var/palliond/tmp/com.orlix.pallion.migrator/com.example.weather.app/Icon.png failed"};
  EXPECT_EQ(errors, expected);
  // What can not be judged, has no usable identifier or holds a missed item is left alone; and so
  // is a link.
  EXPECT_EQ(entriesOf(device / "private/var/mobile/Applications"), 8U);
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

// Across volumes nothing is taken from a source before a sync of the volume that it was copied to,
// and one such sync serves all that an application brings.
TEST(EndToEnd, SyncsCopiesBeforeTheirSourcesGo) {
  SKIP_UNLESS_ROOT();
  if (!canMount() || !GatedProcess::isPossible())
    GTEST_SKIP() << "mounting or call filters with notification are not permitted here";
  TemporaryRoot device;
  EXPECT_TRUE(runInMountNamespace([&] {
    const Mount newVolume = Mount::tmpfs(device.makeDirectory("private/var/palliond"));
    ASSERT_TRUE(newVolume.mounted());
    makeLayout(device.path(), kSmallLayout);
    const std::string from = device / "private/var/mobile/";
    const std::string to = device / "private/var/palliond/Containers/";
    bool unsynced = false;
    int syncs = 0;
    int removals = 0;
    const auto gate = [&](const GatedProcess::Call& call) {
      const std::string name = call.name;
      if (name == "syncfs") {
        unsynced = false;
        ++syncs;
      } else if (name == "openat" && call.changes && call.descriptorPath(0).starts_with(to)) {
        unsynced = true;
      } else if (name == "unlinkat" &&
                 call.path(1) != "com.orlix.pallion.container_migrator.plist" &&
                 call.descriptorPath(0).starts_with(from)) {
        ++removals;
        EXPECT_FALSE(unsynced) << call.descriptorPath(0) << "/" << call.path(1);
      }
      return 0;
    };
    const GatedProcess::Outcome outcome =
        GatedProcess::run({kPrograms + "migration-host", "-q", "--root", device.path()}, gate);
    EXPECT_EQ(outcome.status, 0) << outcome.out;
    EXPECT_GT(removals, 50);
    // For each of the 6 containers its placeholder and its content, for each of 3 groups and 2
    // harbors its content.
    EXPECT_LE(syncs, 2 * 6 + 3 + 2);
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
