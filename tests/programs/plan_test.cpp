#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/helpers/child_process.h"
#include "tests/helpers/temporary_root.h"
#include "tests/helpers/tree_snapshot.h"

namespace pallion::test {
namespace {

using Json = nlohmann::json;
using Words = std::vector<std::string>;

const std::string kPrograms = std::string(PALLION_BINARY_DIR) + "/bin/";
const std::string kMobile = "/private/var/mobile";
const std::string kContainers = kMobile + "/Applications/";

std::string plist(const std::string& entries) {
  return "<plist version=\"1.0\"><dict>" + entries + "</dict></plist>";
}
std::string entry(const std::string& key, const std::string& text) {
  return "<key>" + key + "</key><string>" + text + "</string>";
}

// A device with an old layout, and what the host says about it.
class Device {
 public:
  explicit Device(const Words& options) {
    ChildProcess::Setup setup;
    setup.arguments = {kPrograms + "make-old-layout", "--root", root.path(), "--files", "3"};
    setup.arguments.insert(setup.arguments.end(), options.begin(), options.end());
    EXPECT_EQ(runProcess(setup).status, 0);
  }

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

  [[nodiscard]] ProcessOutcome host(const Words& words, std::optional<uid_t> user = {}) const {
    ChildProcess::Setup setup;
    setup.arguments = {kPrograms + "migration-host", "--root", root.path(), "--json"};
    setup.environment = {"ASAN_OPTIONS=detect_leaks=0"};
    setup.arguments.insert(setup.arguments.end(), words.begin(), words.end());
    setup.user = user;
    return runProcess(setup);
  }
  [[nodiscard]] TreeSnapshot snapshot() const {
    SnapshotOptions everything;
    everything.accessTimes = true;
    everything.changeTimes = true;
    snapshotTree(root.path(), everything);  // reads the links, whose access nobody can hide
    return snapshotTree(root.path(), everything);
  }

  TemporaryRoot root;
};

std::vector<Json> linesOf(const ProcessOutcome& outcome) {
  std::vector<Json> lines;
  std::istringstream stream(outcome.out);
  for (std::string line; std::getline(stream, line);) lines.push_back(Json::parse(line));
  EXPECT_EQ(lines.at(lines.size() - 1).value("type", ""), "summary") << outcome.out;
  return lines;
}

std::string idOf(const ProcessOutcome& outcome) { return linesOf(outcome).back()["planId"]; }

// Every awkward case that is in neither of the sample layouts.
void addCases(const Device& device) {
  const TemporaryRoot& root = device.root;
  device.application("elsewhere", "A.app", "com.example.elsewhere");
  device.marker("elsewhere", kMobile + "/Media", "A.app", "com.example.elsewhere");
  device.application("twin1", "A.app", "com.example.twin");
  device.application("twin2", "A.app", "com.example.twin");
  device.application("staged", "A.app", "com.example.staged");
  root.makeFile(kContainers + "staged/Staging/Payload/A.app/code", "of a run before");
  device.application("resumable", "A.app", "com.example.resumable");
  root.makeFile(kContainers + "resumable/Staging/Payload/Tunnel.vpnplugin/code", "");
  device.application("blocked", "A.app", "com.example.blocked");
  root.makeFile(kContainers + "blocked/Staging", "no directory");
  root.makeLink(kContainers + "linked/Staging", "../twin1");
  device.application("linked", "A.app", "com.example.linked");
  device.application("two", "A.app", "com.example.two");
  root.makeDirectory(kContainers + "two/B.app");
  device.application("bundleless", "A.app", "com.example.bundleless");
  device.marker("bundleless", kContainers + "bundleless", "Gone.app", "com.example.bundleless");
  device.application("other type", "A.app", "com.example.othertype");
  device.marker("other type", kContainers + "other type", "A.app", "com.example.othertype", "Foo");
  device.application("other identifier", "A.app", "com.example.first");
  device.marker("other identifier", kContainers + "other identifier", "A.app",
                "com.example.second");
  device.application("data as bundle", "A.app", "com.example.data");
  device.marker("data as bundle", kContainers + "data as bundle", "Documents", "com.example.data",
                "VPNBundle");
  device.application("long", "A.app", std::string(253, 'i'));
  device.application("pair", "A.app", "com.example.pair");
  device.application("pair", "A.vpnplugin", "com.example.pair.tunnel");
  device.application("tunnel", "A.vpnplugin", "com.example.pair.tunnel");
  device.application("clash", "A.app", "com.example.pair.tunnel");
  device.application("swept", "A.app", "com.example.swept");
  root.makeFile(kContainers +
                "swept/.com.orlix.pallion.moved.0123ABCD-0000-4000-8000-0123456789AB/x");
  device.application("names", "A.app", "com.example.\x1B[31mnames");
  root.makeFile(kContainers + "unprintable/line\nbreak \x1B[2J \xFF");
  device.application("unprintable", "A.app", "com.example.unprintable");
  root.makeFile(kContainers + "marked/com.orlix.pallion.placeholder");
  device.application("marked", "A.app", "com.example.marked");
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
    Words options;
    bool more;
  } cases[] = {
      {"sound", {"--apps", "4", "--vpn", "1", "--groups", "2", "--harbors", "2"}, false},
      {"awkward", {"--apps", "4", "--mess", "--groups", "2", "--harbors", "2"}, true},
  };
  for (const auto& [name, options, more] : cases) {
    SCOPED_TRACE(name);
    const Device device(options);
    if (more) addCases(device);
    // The second time over what the first run has left.
    for (int round = 0; round < 2; ++round) {
      const TreeSnapshot before = device.snapshot();
      const ProcessOutcome planned = device.host({"plan"});
      EXPECT_EQ(difference(before, device.snapshot()), "");
      EXPECT_EQ(planned.err, "");
      std::vector<Json> plan = linesOf(planned);
      const ProcessOutcome migrated = device.host({"migrate", "--expect-plan", idOf(planned)});
      const Json summary = linesOf(migrated).back();
      EXPECT_EQ(planned.status, migrated.status) << planned.out << migrated.err;
      EXPECT_EQ(plan.back()["result"], summary["result"]);
      std::map<std::string, bool> results;
      for (const Json& container : summary["containers"]) {
        const std::string path = container["path"];
        results[path.substr(0, path.find_last_not_of('/') + 1)] = container["result"];
      }
      const std::string apps = device.host({"apps"}).out;
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
  const Device device({"--apps", "2"});
  device.application("changing", "A.app", "com.example.changing");
  const std::string file = device.root / (kContainers + "changing/Documents/changing");
  constexpr uid_t kNobody = 65534;
  for (const auto& item : std::filesystem::recursive_directory_iterator(device.root.path()))
    ASSERT_EQ(lchown(item.path().c_str(), kNobody, kNobody), 0);
  ASSERT_EQ(chown(device.root.path().c_str(), kNobody, kNobody), 0);
  const std::string id = idOf(device.host({"plan"}));
  const ProcessOutcome unprivileged = device.host({"plan"}, kNobody);
  EXPECT_TRUE(unprivileged.status == 127 || idOf(unprivileged) == id) << unprivileged.err;

  std::ofstream(file) << "COM.EXAMPLE.CHANGING";  // of the same size
  const std::string newId = idOf(device.host({"plan"}));
  EXPECT_NE(newId, id);
  const TreeSnapshot before = device.snapshot();
  const ProcessOutcome refused = device.host({"--expect-plan", id});
  EXPECT_EQ(refused.status, 4);
  EXPECT_NE(refused.err.find(id), std::string::npos) << refused.err;
  EXPECT_NE(refused.err.find(newId), std::string::npos) << refused.err;
  EXPECT_EQ(difference(before, device.snapshot()), "");
  EXPECT_EQ(device.host({"--expect-plan", newId}).status, 0);
}

}  // namespace
}  // namespace pallion::test
