#include <filesystem>
#include <regex>
#include <sys/stat.h>

#include "tests/helpers/device_state.h"
#include "tests/helpers/gated_process.h"
#include "tests/helpers/mounts.h"
#include "tests/programs/program_process.h"

namespace pallion::test {

TEST(EndToEnd, CarriesEveryByteIntoTheNewLayout) {
  if (!isRoot()) GTEST_SKIP() << "owners and devices of user data need root";
  TemporaryRoot device;
  makeOldLayout(device.path(), "--apps 40 --groups 12 --harbors 5 --vpn 4 --placeholders 5");
  const DeviceState before(device.path());
  std::map<std::string, int> kinds;
  for (const Json& line : jsonLines(host(device.path(), {"plan", "--json"})))
    ++kinds[line.value("kind", "")];
  EXPECT_GE(before.applications(), 44U);
  EXPECT_EQ(kinds["container"], 44);
  EXPECT_EQ(kinds["group"], 12);
  EXPECT_EQ(kinds["harbor"], 5);
  const ProcessOutcome outcome = host(device.path());
  EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  EXPECT_EQ(before.differenceAfterMigration(device.path()), "");
  // Nothing to do the second time, nor where there is nothing.
  EXPECT_EQ(host(device.path()).status, 0);
  EXPECT_EQ(host(TemporaryRoot().path()).status, 0);
  EXPECT_EQ(before.differenceAfterMigration(device.path()), "");
}

// Every awkward case that make-old-layout knows ends with its own line, and loses nothing that
// could be kept.
TEST(EndToEnd, SaysOfEveryAwkwardCaseWhatBecameOfIt) {
  if (!isRoot()) GTEST_SKIP() << "owners and devices of user data need root";
  TemporaryRoot device;
  TemporaryRoot outside;
  makeOldLayout(device.path(), "--apps 6 --groups 3 --harbors 2 --vpn 1 --placeholders 1 --mess");
  EXPECT_EQ(host(device.path(), {"--log", outside / "log"}).status, 1);
  std::string log = readAll(outside / "log");
  static const std::pair<const char*, const char*> kPlaces[] = {
      {"[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}", "$$U"},
      {"/private/var/mobile/Applications", "$$A"},
      {"/private/var/mobile/Library", "$$L"}};
  for (const auto& [place, name] : kPlaces) log = std::regex_replace(log, std::regex(place), name);
  std::multiset<std::string> errors;
  const std::regex error("\\[3\\] .*: PLAppMigrator: (.*)");
  for (std::sregex_iterator at(log.begin(), log.end(), error), end; at != end; ++at)
    errors.insert((*at)[1]);
  EXPECT_EQ(errors.size(), 33U) << testing::PrintToString(errors);
  // Those of them that only the real registry and installer bring about.
  for (const char* expected :
       {"Failed to create staged placeholder directory at "
        "/private/var/palliond/tmp/com.orlix.pallion.migrator/...app/ : POSIX 22: \"..\" is no "
        "plain name",
        "Failed to install file://$A/$U/Staging/ : RegistryErrorDomain 4: "
        "$A/$U/Staging/Payload/NoExecutable.app/NoExecutable: No such file or directory (POSIX 2)",
        "Installation of $A/$U/NoExecutable.app/ failed with Pallion error "
        "$A/$U/Staging/Payload/NoExecutable.app/NoExecutable (MissingBundleExecutable : No such "
        "file or directory)",
        "Failed to migrate safe harbor for identifier com.example.awkward.missing at "
        "$L/Pallion/SafeHarbors/missing : (null)",
        "Found missed items in $A/$U/ for com.example.awkward.Missed: (file://$A/$U/forgotten.txt)",
        "Missing source group container at $L/GroupContainers/$U/",
        "Not removing $L/Caches/com.orlix.pallion.plist because 8 items remain unmigrated."}) {
    EXPECT_EQ(errors.count(expected), 1U) << expected;
  }
  EXPECT_NE(log.find("because it's older than what's built into the system. Data migration already "
                     "happened so we're done here."),
            std::string::npos);
  // What can not be judged, has no usable identifier or holds a missed item is left alone; and so
  // is a link.
  const std::filesystem::directory_iterator left(device / "private/var/mobile/Applications");
  EXPECT_EQ(std::distance(left, {}), 8);
}

// Across volumes nothing is taken from a source before a sync of the volume that it was copied to,
// and one such sync serves all that an application brings.
TEST(EndToEnd, SyncsCopiesBeforeTheirSourcesGo) {
  if (!isRoot()) GTEST_SKIP() << "owners and devices of user data need root";
  if (!canMount() || !GatedProcess::isPossible())
    GTEST_SKIP() << "mounting or call filters with notification are not permitted here";
  TemporaryRoot device;
  EXPECT_TRUE(runInMountNamespace([&] {
    const Mount newVolume = Mount::tmpfs(device.makeDirectory("private/var/palliond"));
    ASSERT_TRUE(newVolume.mounted());
    makeOldLayout(
        device.path(),
        "--apps 5 --vpn 1 --groups 3 --harbors 2 --placeholders 1 --files 3 --file-size 100");
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
        GatedProcess::run({kBinaries + "/bin/migration-host", "-q", "--root", device.path()}, gate);
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
    makeOldLayout(device.path(), "--apps 10 --files 10 --file-size 30000 --groups 2 --harbors 1");
    const DeviceState before(device.path());
    const Mount newVolume = Mount::tmpfs(newLayout, "size=1500k");
    ASSERT_TRUE(newVolume.mounted());
    EXPECT_EQ(host(device.path(), {"plan"}).status, 1) << "foreseen";
    const ProcessOutcome full = host(device.path());
    EXPECT_EQ(full.status, 1) << full.out << full.err;
    EXPECT_NE(full.out.find("No space left on device"), std::string::npos) << full.out;
    ChildProcess::Setup remount;
    remount.arguments = {"/bin/mount", "-o", "remount,size=64m", newLayout};
    ASSERT_EQ(runProcess(remount).status, 0);
    const ProcessOutcome plan = host(device.path(), {"plan", "--json"});
    EXPECT_EQ(plan.status, 0) << plan.out;
    EXPECT_NE(plan.out.find("\"action\":\"copy\""), std::string::npos) << plan.out;
    const ProcessOutcome again = host(device.path());
    EXPECT_EQ(again.status, 0) << again.out << again.err;
    EXPECT_EQ(before.differenceAfterMigration(device.path()), "");
  }));
}

TEST(EndToEnd, LeavesAReadOnlyDeviceAlone) {
  if (!canMount()) GTEST_SKIP() << "mounting is not permitted here";
  TemporaryRoot device;
  EXPECT_TRUE(runInMountNamespace([&] {
    makeOldLayout(device.path(), "--apps 2 --files 2");
    const TreeSnapshot before = snapshotTree(device.path());
    const Mount same = Mount::bind(device.path(), device.path());
    ChildProcess::Setup remount;
    remount.arguments = {"/bin/mount", "-o", "remount,bind,ro", device.path()};
    ASSERT_EQ(runProcess(remount).status, 0);
    const ProcessOutcome outcome = host(device.path());
    EXPECT_EQ(outcome.status, 1) << outcome.err;
    EXPECT_NE(outcome.out.find("Read-only file system"), std::string::npos) << outcome.out;
    EXPECT_EQ(difference(before, snapshotTree(device.path())), "");
  }));
}

}  // namespace pallion::test
