#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <sys/file.h>
#include <sys/stat.h>

#include "platform/registry.h"
#include "tests/programs/program_process.h"

namespace pallion::test {
namespace {

TEST(MigrationHost, EndsWithTheStatusAndOneLineThatNamesTheCause) {
  const TemporaryRoot outside;
  const std::string text = outside.makeFile("text", "no module");
  const std::string library = kBinaries + "/lib/libpallion-platform.so";
  const struct {
    Words arguments;
    std::string plugin;
    Words environment;
    const char* script;
    int status;
    std::string error;  // what the one line on standard error has
    Json result;
  } cases[] = {
      {{"migrate"}, kFakePlugin, {}, "", 0, "", true},
      {{}, kFakePlugin, {}, "perform\nfail\n", 1, "", false},
      {{"--what"}, kFakePlugin, {}, "", 2, "--what", {}},
      {{"migrat\ne"}, kFakePlugin, {}, "", 2, "migrat\\x0Ae", {}},
      {{}, text, {}, "", 3, ": " + text + ": ", {}},
      {{}, library, {}, "", 3, ": no migration plug-in", {}},
      {{}, kFakePlugin, {"FAKE_ABI=9"}, "", 3, "plugin.so: plug-in interface 9, needed is ", {}},
      {{}, kFakePlugin, {}, "init\nerror x why\nfail\n", 3, "there is no migrator: why", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    const TemporaryRoot root;
    ChildProcess::Setup setup = setupFor(root, c.script, {"--json"});
    std::ranges::replace(setup.arguments, kFakePlugin, c.plugin);
    setup.arguments.insert(setup.arguments.end(), c.arguments.begin(), c.arguments.end());
    setup.environment.insert(setup.environment.end(), c.environment.begin(), c.environment.end());
    const ProcessOutcome outcome = runProcess(setup);
    EXPECT_EQ(outcome.status, c.status);
    const Words errors = lines(outcome.err);
    ASSERT_EQ(errors.size(), c.error.empty() ? 0U : 1U) << outcome.err;
    if (!errors.empty()) {
      EXPECT_TRUE(errors[0].starts_with("migration-host: ")) << errors[0];
      EXPECT_NE(errors[0].find(c.error), std::string::npos) << errors[0];
    }
    EXPECT_EQ(summaryOf(outcome).at("result"), c.result);
  }
}

TEST(MigrationHost, AsksThePluginOnceInsideTheRootAlsoWithoutPrivileges) {
  const TemporaryRoot root;
  ChildProcess::Setup setup = setupFor(root, "");
  setup.environment.push_back("TMPDIR=" + root.path());
  EXPECT_EQ(runProcess(setup).status, 0);
  const std::string calls =
      "init mask=18 cwd=/ "
      "tmpdir=/private/var/palliond/tmp\ndataClassName\nperformMigration\ndestroy\n";
  EXPECT_EQ(readAll(root / "calls"), calls);

  if (!isRoot()) GTEST_SKIP() << "the other tests run without privileges already";
  if (readAll("/proc/sys/user/max_user_namespaces") == "0\n")
    GTEST_SKIP() << "no user namespaces here";
  constexpr uid_t kNobody = 65534;
  std::filesystem::remove(root / "calls");
  setup.user = kNobody;
  const ProcessOutcome refused = runProcess(setup);
  if (refused.status == 127) GTEST_SKIP() << "the program is not readable for everyone";
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(refused.err, "migration-host: " + root.path() + ": Permission denied\n");
  ASSERT_EQ(chown(root.path().c_str(), kNobody, kNobody), 0);
  const ProcessOutcome outcome = runProcess(setup);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(readAll(root / "calls"), calls);
}

TEST(MigrationHost, RefusesASecondRunOnTheSameRoot) {
  const TemporaryRoot root;
  const int lock = open(root.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(lock, LOCK_EX | LOCK_NB), 0);
  const ProcessOutcome refused = run(root, "", {"--json"});
  EXPECT_EQ(refused.status, 4);
  EXPECT_EQ(refused.err, "migration-host: " + root.path() + ": another run is at work here\n");
  EXPECT_TRUE(summaryOf(refused).at("dataClassName").is_null());
  EXPECT_FALSE(exists(root / "calls"));
  close(lock);
  EXPECT_EQ(run(root, "").status, 0);
}

TEST(MigrationHost, SaysThatALaterRunResumesWhenASignalEndsIt) {
  const std::string script =
      "perform\nstart com.a /a\nfinish true\nstart com.b /b\nstep data\nhang\n";
  const struct {
    int signal;
    int ignored;
    const char* name;
  } cases[] = {{SIGTERM, 0, "SIGTERM"}, {SIGINT, 0, "SIGINT"}, {SIGTERM, SIGINT, "SIGTERM"}};
  for (const auto& c : cases) {
    const TemporaryRoot root;
    ChildProcess::Setup setup = setupFor(root, script, {"--json"});
    setup.ignoredSignal = c.ignored;
    ChildProcess host(setup);
    ASSERT_TRUE(waitUntil([&] { return readAll(root / "calls").ends_with("hanging\n"); }));
    if (c.ignored != 0) host.signal(c.ignored);
    host.signal(c.signal);
    const ProcessOutcome outcome = host.wait();
    EXPECT_EQ(outcome.status, 128 + c.signal);
    EXPECT_EQ(outcome.err, std::string("migration-host: interrupted by ") + c.name +
                               "; a later run resumes where this one stopped\n");
    const Json summary = summaryOf(outcome);
    EXPECT_TRUE(summary.at("result").is_null());
    EXPECT_EQ(summary.at("containers"),
              Json::parse(R"([{"identifier":"com.a","path":"/a","result":true}])"));
    const Json report = Json::parse(readAll(root / kReport), nullptr, false);
    EXPECT_EQ(report.at("exitStatus"), 128 + c.signal);
    EXPECT_EQ(report.at("containers").at(1).at("outcome"), "interrupted");
    EXPECT_EQ(run(root, "").status, 0) << "the lock went with the process";
  }
}

TEST(MigrationHost, TellsWhatBecameOfEveryContainer) {
  const std::string script =
      "init\nerror x PLAppMigrator: early\n\nperform\n"
      "start com.example.good /private/a\nnotice x not a reason\nfinish true\n"
      "start com.\\xff\\x1b[2J /private/b\\x0ac\n"
      "error x first\nerror x PLAppMigrator: Failed to read \\x1b[31m\\x0a2 migrated, 0 "
      "failed\nerror x "
      "second\nfinish false\n"
      "error x PLAppMigrator: late\nprogress 0.75\nfail\n";
  const TemporaryRoot root;
  const ProcessOutcome outcome = run(root, script);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(std::regex_replace(outcome.out, std::regex("in [0-9.]+ s"), "in S s"),
            "com.example.good  migrated\n"
            "com.\\xFF\\x1B[2J   failed    Failed to read \\x1B[31m\\x0A2 migrated, 0 failed\n"
            "other problem: early\n"
            "other problem: late\n"
            "1 migrated, 1 failed, 2 other problems in S s\n");
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(run(root, script, {"-q"}).out, "");

  Json summary = summaryOf(run(root, script, {"--json"}));
  EXPECT_TRUE(summary.at("seconds").is_number());
  summary.erase("seconds");
  EXPECT_EQ(
      summary,
      Json::parse(R"({"version": 1, "type": "summary", "exitStatus": 1, "dataClassName": "Fake",
    "estimatedDuration": 22.25, "items": 2, "result": false, "progress": 0.75, "containers": [
      {"identifier": "com.example.good", "path": "/private/a", "result": true},
      {"identifier": "com.\\xFF\u001b[2J", "path": "/private/b\nc", "result": false}]})"));
}

TEST(MigrationHost, EndsItsRunWithoutSomebodyToTell) {
  for (const auto output : {ChildProcess::Output::kBrokenPipe, ChildProcess::Output::kClosed}) {
    const TemporaryRoot root;
    const TemporaryRoot outside;
    ChildProcess::Setup setup = setupFor(root, "perform\nstart a /a\nerror x broken\nfinish true\n",
                                         {"--log", outside / "log", "--json"});
    setup.output = output;
    const ProcessOutcome outcome = runProcess(setup);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, output == ChildProcess::Output::kClosed
                               ? ""
                               : "migration-host: standard output: Broken pipe\n");
    EXPECT_EQ(lines(readAll(outside / "log")).size(), 1U)
        << "what was for standard output is elsewhere";
  }
}

const std::string kLoggingScript =
    "perform\nerror x host\nnotice x host\nproduct 3 product\nproduct 5 product\nproduct 7 "
    "a\\xff\\x0ab\n";

TEST(MigrationHostLogs, HoldTheLinesUpToTheLevelThatIsAskedFor) {
  const struct {
    Words arguments;
    size_t hostLines;
    size_t productLines;
  } cases[] = {{{}, 2, 2}, {{"-v"}, 2, 3}, {{"-q"}, 1, 1}};
  for (const auto& c : cases) {
    const TemporaryRoot root;
    const ProcessOutcome outcome = run(root, kLoggingScript, c.arguments);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out.find("product"), std::string::npos);
    EXPECT_EQ(lines(readAll(root / kHostLog)).size(), c.hostLines);
    EXPECT_EQ(lines(readAll(root / kProductLog)).size(), c.productLines);
  }
  const TemporaryRoot root;
  const TemporaryRoot outside;
  run(root, kLoggingScript, {"--log", outside / "log", "-v", "--log-format", "json"});
  EXPECT_FALSE(exists(root / "private"));
  Words seen;
  for (const std::string& line : lines(readAll(outside / "log"))) {
    const Json object = Json::parse(line, nullptr, false);
    ASSERT_TRUE(object.is_object()) << line;
    seen.push_back(object.at("log").get<std::string>() +
                   std::to_string(object.at("level").get<int>()) +
                   object.at("message").get<std::string>());
  }
  EXPECT_EQ(seen, (Words{"host3host", "host5host", "product3product", "product5product",
                         "product7a\\xFF\nb"}));
}

TEST(MigrationHostLogs, ThatCannotBeWrittenAreOneWarningAndStopNoRun) {
  const TemporaryRoot root;
  const std::string victim = root.makeFile("victim", "mine");
  root.makeLink(kHostLog, "/victim");
  root.makeDirectory("private/var/mobile/Library/Logs/Pallion");
  ASSERT_EQ(mkfifo((root / kProductLog).c_str(), 0600), 0);
  const ProcessOutcome outcome = run(root, kLoggingScript, {"--log", root / "missing/log"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "migration-host: warning: using the logs inside the root instead of " +
                             (root / "missing/log") + ": No such file or directory\n" +
                             "migration-host: warning: log lines are lost: /" + kHostLog +
                             ": Too many levels of symbolic links\n" +
                             "migration-host: warning: log lines are lost: /" + kProductLog +
                             ": No such device or address\n");
  EXPECT_EQ(readAll(victim), "mine");
}

TEST(MigrationHostApps, ShowsWhatTheRegistryOfTheRootHolds) {
  const TemporaryRoot root;
  root.makeFile(
      "Applications/Built.app/Info.plist",
      plist(entry("QXBundleIdentifier", "com.example.built") + entry("QXBundleVersion", "1.10")));
  root.makeFile("old harbor/kept");
  {
    const auto registry = Registry::atRoot(root.url());
    ASSERT_TRUE(registry->registerSafeHarbor(root / "old harbor", "com.example.gone", 2, nullptr));
    ASSERT_TRUE(registry->proxyForIdentifier("com.example.alone"));
  }
  const int lock = open(root.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(flock(lock, LOCK_EX | LOCK_NB), 0);  // asking goes on beside a run
  const ProcessOutcome outcome = host(root.path(), {"apps", "--json"});
  close(lock);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const Json document = Json::parse(outcome.out, nullptr, false);
  ASSERT_TRUE(document.is_object()) << outcome.out;
  const Json& applications = document.at("applications");
  ASSERT_EQ(applications.size(), 2U) << outcome.out;
  const Json& alone = applications[0];
  EXPECT_EQ(alone.at("identifier"), "com.example.alone");
  EXPECT_TRUE(alone.at("bundleURL").is_null());
  const std::string data = alone.at("dataContainerURL").get<std::string>();
  EXPECT_TRUE(data.starts_with("/private/var/palliond/Containers/Data/")) << data;
  Json built = applications[1];
  for (const char* own : {"bundleContainerURL", "dataContainerURL", "groupContainerURLs"}) {
    EXPECT_EQ(built.erase(own), 1U) << own;
  }
  EXPECT_EQ(built, Json::parse(R"({"identifier": "com.example.built", "type": "App",
    "placeholder": false, "builtIn": true, "version": "1.10",
    "bundleURL": "/Applications/Built.app"})"));
  const Json& harbor = document.at("safeHarbors").at(0);
  EXPECT_EQ(harbor.at("identifier"), "com.example.gone");
  EXPECT_EQ(harbor.at("containerType"), 2);
  EXPECT_TRUE(exists(root.path() + harbor.at("path").get<std::string>() + "/kept")) << harbor;
}

TEST(MigrationHostApps, ChangesNothingAndNamesTheCauseOfAFailure) {
  const TemporaryRoot root;
  const ProcessOutcome empty = host(root.path(), {"apps"});
  EXPECT_EQ(empty.status, 0);
  EXPECT_EQ(empty.out, "0 applications, 0 safe harbors\n");
  EXPECT_TRUE(std::filesystem::is_empty(root.path()));

  const std::string database = "private/var/palliond/Library/Pallion/registry.sqlite";
  root.makeFile(database, "this is no database at all");
  const ProcessOutcome damaged = host(root.path(), {"apps"});
  EXPECT_EQ(damaged.status, 1);
  EXPECT_EQ(damaged.out, "");
  ASSERT_EQ(lines(damaged.err).size(), 1U) << damaged.err;
  EXPECT_NE(damaged.err.find("/" + database), std::string::npos) << damaged.err;
}

}  // namespace
}  // namespace pallion::test
