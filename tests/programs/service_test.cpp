#include "tests/helpers/datagram_receiver.h"
#include "tests/helpers/mounts.h"
#include "tests/programs/host_process.h"

namespace pallion::test {
namespace {

const std::string kLines =
    "perform\nstart com.a /a\nerror x one\\x0atwo\nfinish false\nproduct 5 low\nproduct 7 lower\n";

TEST(MigrationHostJournal, GetsTheLinesOfBothLogsWithWhatTheyAreAbout) {
  if (!canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  const TemporaryRoot root;
  const TemporaryRoot outside;
  outside.makeDirectory("systemd/journal");
  const DatagramReceiver journal(outside / "systemd/journal/socket");
  EXPECT_TRUE(runInMountNamespace([&] {
    const Mount system = Mount::bind(outside.path(), "/run");
    ASSERT_TRUE(system.mounted());
    EXPECT_EQ(run(root, kLines).status, 0);
  }));
  const std::string error = journal.receive().value_or("");
  EXPECT_TRUE(error.starts_with(std::string("MESSAGE\n\7\0\0\0\0\0\0\0one\ntwo\n", 24) +
                                "PRIORITY=3\nSYSLOG_IDENTIFIER=migration-host\nPALLION_LOG=host\n"
                                "CODE_FUNC=-[Fake run]\nCODE_FILE="))
      << error;
  EXPECT_NE(error.find("/fake_plugin.cpp\nCODE_LINE="), std::string::npos) << error;
  EXPECT_TRUE(error.ends_with("\nPALLION_CONTAINER=com.a\n")) << error;
  EXPECT_EQ(journal.receive(),
            "MESSAGE=low\nPRIORITY=5\nSYSLOG_IDENTIFIER=migration-host\nPALLION_LOG=product\n"
            "CODE_FUNC=-[PLFake work]\n");
  EXPECT_EQ(journal.receive(), std::nullopt) << "the level holds for the journal too";
  EXPECT_EQ(lines(readAll(root / kHostLog)).size(), 1U) << "besides the files";
}

TEST(MigrationHostService, IsReadyOnceNothingIsLeftBehind) {
  const struct {
    const char* script;
    Words arguments;
    int status;
    const char* meaning;
    size_t changes;
  } cases[] = {
      {"perform\npause 300\nprogress 0.5\npause 1000\nprogress 1\n",
       {},
       0,
       "everything was migrated",
       3},
      {"perform\nfail\n", {}, 1, "something was not migrated; a later run goes on from there", 1},
      {"", {"--log", "/dev/null"}, 0, "everything was migrated", 1},
      {"init\nfail\n", {}, 3, "there is no migrator", 0}};
  for (const auto& c : cases) {
    for (const bool abstract : {false, true}) {
      const TemporaryRoot root;
      const TemporaryRoot outside;
      const std::string address = (abstract ? "@" : "") + outside.path() + "/notify";
      const DatagramReceiver manager(address);
      ChildProcess::Setup setup = setupFor(root, c.script, c.arguments);
      setup.environment.push_back("NOTIFY_SOCKET=" + address);
      EXPECT_EQ(runProcess(setup).status, c.status);
      Words told;
      while (const auto datagram = manager.receive()) told.push_back(*datagram);
      const std::string last =
          "STATUS=Exit status " + std::to_string(c.status) + ": " + c.meaning + "\n";
      ASSERT_GE(told.size(), 1U);
      EXPECT_EQ(told.back(), "STOPPING=1\n" + last);
      told.pop_back();
      if (c.status == 0 && !told.empty()) {
        EXPECT_EQ(told.back(), "READY=1\n" + last);
        told.pop_back();
      }
      EXPECT_EQ(told.size(), c.changes) << c.script;
      for (const std::string& datagram : told) {
        EXPECT_TRUE(datagram.starts_with("STATUS=") &&
                    datagram.find("READY") == std::string::npos &&
                    datagram.ends_with("\nEXTEND_TIMEOUT_USEC=600000000\n"))
            << datagram;
      }
    }
  }
}

}  // namespace
}  // namespace pallion::test
