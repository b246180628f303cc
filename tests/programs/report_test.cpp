#include <csignal>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "tests/helpers/child_process.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/temporary_root.h"
#include "tests/programs/host_process.h"

namespace pallion::test {
namespace {

const std::string kFolder = "private/var/mobile/Library/Logs/Pallion";
const std::string kData = kFolder + "/migration-report.json";
const std::string kPage = kFolder + "/migration-report.html";

ChildProcess::Setup host(const TemporaryRoot& root, const std::vector<std::string>& more = {}) {
  ChildProcess::Setup setup;
  setup.arguments = {kBinaries + "/bin/migration-host",
                     "--root",
                     root.path(),
                     "--plugin",
                     kFakePlugin,
                     "--progress=none"};
  setup.arguments.insert(setup.arguments.end(), more.begin(), more.end());
  setup.environment = {"ASAN_OPTIONS=detect_leaks=0"};
  return setup;
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}
const std::string kHostile = R"(a"'<b>&</script>\xff\x1b[2J\x0a)";
const std::string kScript =
    "perform\nstart com.good /private/good\nstep data\nmoved x\nmoved y\nstep removal\n"
    "product 7 debug\nproduct 5 notice\nfinish true\nstart " +
    kHostile + " /private/" + kHostile + "\nstep data\nerror x PLAppMigrator: " + kHostile +
    "\nerror x its last word\nfinish false\nerror x outside\nfail\n";

TEST(Report, SaysWhatTheRunDid) {
  const TemporaryRoot root;
  root.makeFile("fake-migration", kScript);
  const ProcessOutcome run = runProcess(host(root));
  const Json report = Json::parse(readAll(root / kData), nullptr, false);
  ASSERT_TRUE(report.is_object());
  EXPECT_EQ(report.at("exitStatus"), 1);
  EXPECT_EQ(report.at("totals").dump(),
            R"({"bytes":0,"entries":2,"failed":1,"interrupted":0,"migrated":1,"otherProblems":1})");
  std::string told;
  for (const Json& container : report.at("containers")) {
    for (const char* key : {"outcome", "identifier", "reason", "step", "entries"})
      told += container.at(key).dump() + " ";
    told += std::to_string(container.at("steps").size()) + "\n";
  }
  for (const Json& line : report.at("log").at("lines")) {
    for (const char* key : {"log", "level", "container"}) told += line.at(key).dump();
  }
  EXPECT_EQ(told, R"("migrated" "com.good" null "removal" 2 2
"failed" "a\"'<b>&</script>\\xFF\u001b[2J\n" "PLAppMigrator: a\"'<b>&</script>\\xFF\u001b[2J\n" "data" 0 1
"product"50"host"31"host"31"host"3null)");

  // In the page such a text has only its harmless form; no script ends where it should not.
  const std::string page = readAll(root / kPage);
  EXPECT_TRUE(has(page, "<bdi>a&quot;&#39;&lt;b&gt;&amp;&lt;/script&gt;\\xFF\\x1B[2J\\x0A</bdi>"));
  EXPECT_EQ(page.find("</script>", page.find("</script>") + 1), page.rfind("</script>"));
  EXPECT_FALSE(has(page, "<b>&") || has(page, "{{") || has(page, "\x1b"));

  EXPECT_TRUE(runProcess(host(root, {"report"})).out.ends_with("Z\n" + run.out));
  const std::string json = runProcess(host(root, {"report", "--json"})).out;
  EXPECT_EQ(Json::parse(json.substr(0, json.find('\n')), nullptr, false), report);
  EXPECT_TRUE(json.ends_with("\n{\"version\":1,\"type\":\"summary\",\"exitStatus\":0}\n"));
}

TEST(Report, OfAnInterruptedRunHasTheContainerInHand) {
  const TemporaryRoot root;
  root.makeFile("fake-migration",
                "perform\nstart a /a\nfinish true\nstart b /b\nstep data\nhang\n");
  ChildProcess child(host(root));
  for (int i = 0; i < 1000 && !readAll(root / "calls").ends_with("hanging\n"); ++i) usleep(10000);
  child.signal(SIGTERM);
  EXPECT_EQ(child.wait().status, 128 + SIGTERM);
  const Json report = Json::parse(readAll(root / kData), nullptr, false);
  ASSERT_TRUE(report.is_object() && report.at("containers").size() == 2);
  EXPECT_EQ(report.at("exitStatus"), 128 + SIGTERM);
  EXPECT_EQ(report.at("containers")[1].at("outcome"), "interrupted");
}

TEST(Report, ThatCannotBeWrittenIsOneWarningAndChangesNothing) {
  if (!canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  EXPECT_TRUE(runInMountNamespace([] {
    for (const std::string script : {"", "perform\nfail\n"}) {
      const TemporaryRoot root;
      root.makeFile("fake-migration", script);
      const Mount full = Mount::tmpfs(root.makeDirectory(kFolder), "size=8k");
      const ProcessOutcome run = runProcess(host(root));
      EXPECT_EQ(run.status, script.empty() ? 0 : 1);
      EXPECT_TRUE(has(run.out, "0 migrated, 0 failed"));
      EXPECT_EQ(run.err, "migration-host: warning: no report of this run: /" + kPage +
                             ": No space left on device\n");
    }
  }));
}

TEST(Report, NeverGoesThroughALinkAndSaysWhatIsMissing) {
  const TemporaryRoot root;
  const std::string victim = root.makeFile("victim/migration-report.json", "mine");
  root.makeLink(kFolder, "/victim");
  EXPECT_TRUE(has(runProcess(host(root)).err, "Pallion/migration-report.json: Not a directory\n"));
  EXPECT_EQ(readAll(victim), "mine");
  const ProcessOutcome damaged = runProcess(host(root, {"report"}));
  EXPECT_TRUE(damaged.status == 1 &&
              has(damaged.err, "migration-report.json: damaged, or of another version\n"));
  const TemporaryRoot empty;
  const ProcessOutcome none = runProcess(host(empty, {"report", "--json"}));
  EXPECT_TRUE(none.status == 1 &&
              has(none.err, "no report of a run: /" + kData + ": No such file or directory\n"));
  EXPECT_EQ(none.out, "{\"version\":1,\"type\":\"summary\",\"exitStatus\":1}\n");
  EXPECT_FALSE(exists(empty / "private"));
}

}  // namespace
}  // namespace pallion::test
