#include <filesystem>
#include <fstream>
#include <sys/stat.h>

#include "tests/programs/program_process.h"

namespace pallion::test {
namespace {

const std::string kMobile = "/private/var/mobile";
const std::string kContainers = kMobile + "/Applications/";

// A device with an old layout, and what the host says about it.
class Device {
 public:
  explicit Device(const char* options) { makeOldLayout(root.path(), options); }

  void application(const std::string& container, const std::string& bundle,
                   const std::string& identifier) const {
    const std::string place = kContainers + container + "/" + bundle;
    root.makeFile(place + "/Info.plist", plist(entry("QXBundleIdentifier", identifier)));
    root.makeFile(kContainers + container + "/Documents/" + container, identifier);
  }
  void marker(const std::string& container, const std::string& path, const std::string& bundle,
              const std::string& identifier, const std::string& type = "App") const {
    root.makeFile(kContainers + container + "/com.orlix.pallion.container_migrator.plist",
                  plist(entry("ContainerPath", path) + entry("BundlePath", path + "/" + bundle) +
                        entry("ContainerType", type) + entry("BundleIdentifier", identifier)));
  }

  [[nodiscard]] ProcessOutcome plan(std::optional<uid_t> user = {}) const {
    ChildProcess::Setup setup =
        setupOf("migration-host", {"plan", "--json", "--root", root.path()});
    setup.user = user;
    return runProcess(setup);
  }
  // Held to a plan.
  [[nodiscard]] ProcessOutcome migrate(const std::string& planId) const {
    return host(root.path(), {"--json", "--expect-plan", planId});
  }

  TemporaryRoot root;
};

std::string idOf(const ProcessOutcome& outcome) { return summaryOf(outcome)["planId"]; }

// Every awkward case that is in neither of the sample layouts.
void addCases(const Device& device) {
  const TemporaryRoot& root = device.root;
  for (const std::string name :
       {"elsewhere", "staged", "resumable", "blocked", "linked", "two", "bundleless", "othertype",
        "data", "pair", "swept", "unprintable", "marked"}) {
    device.application(name, "A.app", "com.example." + name);
  }
  device.marker("elsewhere", kMobile + "/Media", "A.app", "com.example.elsewhere");
  device.application("twin1", "A.app", "com.example.twin");
  device.application("twin2", "A.app", "com.example.twin");
  root.makeFile(kContainers + "staged/Staging/Payload/A.app/code", "of a run before");
  root.makeFile(kContainers + "resumable/Staging/Payload/Tunnel.vpnplugin/code", "");
  root.makeFile(kContainers + "blocked/Staging", "no directory");
  root.makeLink(kContainers + "linked/Staging", "../twin1");
  root.makeDirectory(kContainers + "two/B.app");
  device.marker("bundleless", kContainers + "bundleless", "Gone.app", "com.example.bundleless");
  device.marker("othertype", kContainers + "othertype", "A.app", "com.example.othertype", "Foo");
  device.application("other identifier", "A.app", "com.example.first");
  device.marker("other identifier", kContainers + "other identifier", "A.app",
                "com.example.second");
  device.marker("data", kContainers + "data", "Documents", "com.example.data", "VPNBundle");
  device.application("long", "A.app", std::string(253, 'i'));
  device.application("pair", "A.vpnplugin", "com.example.pair.tunnel");
  device.application("tunnel", "A.vpnplugin", "com.example.pair.tunnel");
  device.application("clash", "A.app", "com.example.pair.tunnel");
  root.makeFile(kContainers +
                "swept/.com.orlix.pallion.moved.0123ABCD-0000-4000-8000-0123456789AB/x");
  device.application("names", "A.app", "com.example.\x1B[31mnames");
  root.makeFile(kContainers + "unprintable/line\nbreak \x1B[2J \xFF");
  root.makeFile(kContainers + "marked/com.orlix.pallion.placeholder");
}

// What one item of the plan says, against what stands there after the run.
void expectOutcome(const Device& device, const Json& line,
                   const std::map<std::string, bool>& results, const std::string& apps) {
  const std::string kind = line.value("kind", "");  // none of the summary
  const std::string action = line.value("action", "");
  const std::string path = line.value("path", "");
  const bool isThere = !path.empty() && exists(device.root / path);
  if (kind == "container") {
    EXPECT_EQ(line["isRemoved"], !isThere) << line;
    ASSERT_EQ(action == "migrate", results.count(path) != 0) << line;
    EXPECT_TRUE(action != "migrate" || line["succeeds"] == results.at(path)) << line;
    for (const Json& item : line["items"]) {
      const std::string name = item["name"];
      EXPECT_EQ(exists(device.root / (path + "/" + name)), item["action"] == "leave") << line;
    }
    EXPECT_TRUE(!line.contains("missed") || isThere) << line;
  } else if (kind == "group") {
    EXPECT_TRUE(action == "skip" || !isThere) << line;
  } else if (kind == "harbor") {
    const std::string identifier = line.value("identifier", "");
    const bool known = apps.find("\"" + identifier + "\",\n      \"path\"") != std::string::npos;
    EXPECT_EQ(known, action == "rename" || action == "taken") << line;
    EXPECT_TRUE(action != "rename" || !isThere) << line;
  }
}

TEST(Plan, ForetellsWhatBecomesOfEveryItemAndLeavesNoTrace) {
  if (!isRoot()) GTEST_SKIP() << "owners of user data need root";
  const struct {
    const char* name;
    const char* options;
    bool more;
  } cases[] = {
      {"sound", "--files 3 --apps 4 --vpn 1 --groups 2 --harbors 2", false},
      {"awkward", "--files 3 --apps 4 --mess --groups 2 --harbors 2", true},
  };
  for (const auto& [name, options, more] : cases) {
    SCOPED_TRACE(name);
    const Device device(options);
    if (more) addCases(device);
    // The second time over what the first run has left.
    for (int round = 0; round < 2; ++round) {
      const TreeSnapshot before = snapshotWithTimes(device.root.path());
      const ProcessOutcome planned = device.plan();
      EXPECT_EQ(difference(before, snapshotWithTimes(device.root.path())), "");
      EXPECT_EQ(planned.err, "");
      std::vector<Json> plan = jsonLines(planned);
      const ProcessOutcome migrated = device.migrate(idOf(planned));
      const Json summary = summaryOf(migrated);
      EXPECT_EQ(planned.status, migrated.status) << planned.out << migrated.err;
      EXPECT_EQ(plan.back()["result"], summary["result"]);
      std::map<std::string, bool> results;
      for (const Json& container : summary["containers"]) {
        const std::string path = container["path"];
        results[path.substr(0, path.find_last_not_of('/') + 1)] = container["result"];
      }
      const std::string apps = host(device.root.path(), {"apps", "--json"}).out;
      size_t migrating = 0;
      for (const Json& line : plan) {
        expectOutcome(device, line, results, apps);
        migrating += line.value("action", "") == "migrate";
      }
      EXPECT_EQ(migrating, results.size());
      EXPECT_TRUE(round == 0 || more || plan.back()["nothingToMigrate"] == true) << planned.out;
    }
  }
}

TEST(Plan, IsWhatTheRunIsHeldTo) {
  if (!isRoot()) GTEST_SKIP() << "owners of user data need root";
  const Device device("--files 3 --apps 2");
  device.application("changing", "A.app", "com.example.changing");
  const std::string file = device.root / (kContainers + "changing/Documents/changing");
  constexpr uid_t kNobody = 65534;
  for (const auto& item : std::filesystem::recursive_directory_iterator(device.root.path()))
    ASSERT_EQ(lchown(item.path().c_str(), kNobody, kNobody), 0);
  ASSERT_EQ(chown(device.root.path().c_str(), kNobody, kNobody), 0);
  const std::string id = idOf(device.plan());
  const ProcessOutcome unprivileged = device.plan(kNobody);
  EXPECT_TRUE(unprivileged.status == 127 || idOf(unprivileged) == id) << unprivileged.err;

  std::ofstream(file) << "COM.EXAMPLE.CHANGING";  // of the same size
  const std::string newId = idOf(device.plan());
  EXPECT_NE(newId, id);
  const TreeSnapshot before = snapshotWithTimes(device.root.path());
  const ProcessOutcome refused = device.migrate(id);
  EXPECT_EQ(refused.status, 4);
  EXPECT_NE(refused.err.find(id), std::string::npos) << refused.err;
  EXPECT_NE(refused.err.find(newId), std::string::npos) << refused.err;
  EXPECT_EQ(difference(before, snapshotWithTimes(device.root.path())), "");
  EXPECT_EQ(device.migrate(newId).status, 0);
}

}  // namespace
}  // namespace pallion::test
