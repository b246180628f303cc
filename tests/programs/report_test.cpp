#include "tests/helpers/mounts.h"
#include "tests/programs/program_process.h"

namespace pallion::test {
namespace {

const std::string kFolder = "private/var/mobile/Library/Logs/Pallion";
const std::string kPage = kFolder + "/migration-report.html";

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
  const ProcessOutcome outcome = run(root, kScript);
  const Json report = Json::parse(readAll(root / kReport), nullptr, false);
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

  EXPECT_TRUE(host(root.path(), {"report"}).out.ends_with("Z\n" + outcome.out));
  const std::string json = host(root.path(), {"report", "--json"}).out;
  EXPECT_EQ(Json::parse(json.substr(0, json.find('\n')), nullptr, false), report);
  EXPECT_TRUE(json.ends_with("\n{\"version\":1,\"type\":\"summary\",\"exitStatus\":0}\n"));
}

TEST(Report, ThatCannotBeWrittenIsOneWarningAndChangesNothing) {
  if (!canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  EXPECT_TRUE(runInMountNamespace([] {
    for (const std::string script : {"", "perform\nfail\n"}) {
      const TemporaryRoot root;
      const Mount full = Mount::tmpfs(root.makeDirectory(kFolder), "size=8k");
      const ProcessOutcome outcome = run(root, script);
      EXPECT_EQ(outcome.status, script.empty() ? 0 : 1);
      EXPECT_TRUE(has(outcome.out, "0 migrated, 0 failed"));
      EXPECT_EQ(outcome.err, "migration-host: warning: no report of this run: /" + kPage +
                                 ": No space left on device\n");
    }
  }));
}

TEST(Report, NeverGoesThroughALinkAndSaysWhatIsMissing) {
  const TemporaryRoot root;
  const std::string victim = root.makeFile("victim/migration-report.json", "mine");
  root.makeLink(kFolder, "/victim");
  EXPECT_TRUE(has(run(root, "").err, "Pallion/migration-report.json: Not a directory\n"));
  EXPECT_EQ(readAll(victim), "mine");
  const ProcessOutcome damaged = host(root.path(), {"report"});
  EXPECT_TRUE(damaged.status == 1 &&
              has(damaged.err, "migration-report.json: damaged, or of another version\n"));
  const TemporaryRoot empty;
  const ProcessOutcome none = host(empty.path(), {"report", "--json"});
  EXPECT_TRUE(none.status == 1 &&
              has(none.err, "no report of a run: /" + kReport + ": No such file or directory\n"));
  EXPECT_EQ(none.out, "{\"version\":1,\"type\":\"summary\",\"exitStatus\":1}\n");
  EXPECT_FALSE(exists(empty / "private"));
}

}  // namespace
}  // namespace pallion::test
