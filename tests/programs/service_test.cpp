#include "tests/helpers/datagram_receiver.h"
#include "tests/helpers/mounts.h"
#include "tests/programs/program_process.h"

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
    int status;
    const char* meaning;
    size_t changes;
  } cases[] = {
      {"perform\npause 300\nprogress 0.5\npause 1000\nprogress 1\n", 0, "everything was migrated",
       3},
      {"perform\nfail\n", 1, "something was not migrated; a later run goes on from there", 1},
      {"", 0, "everything was migrated", 1},
      {"init\nfail\n", 3, "there is no migrator", 0}};
  for (const auto& c : cases) {
    const TemporaryRoot root;
    const TemporaryRoot outside;
    const std::string address = (c.changes == 1 ? "@" : "") + outside.path() + "/notify";
    const DatagramReceiver manager(address);
    ChildProcess::Setup setup = setupFor(root, c.script);
    setup.environment.push_back("NOTIFY_SOCKET=" + address);
    EXPECT_EQ(runProcess(setup).status, c.status);
    const std::string last =
        "STATUS=Exit status " + std::to_string(c.status) + ": " + c.meaning + "\n";
    for (size_t i = 0; i < c.changes; ++i) {
      const std::string told = manager.receive().value_or("");
      EXPECT_TRUE(told.starts_with("STATUS=") && told.find("READY") == std::string::npos &&
                  told.ends_with("\nEXTEND_TIMEOUT_USEC=600000000\n"))
          << told;
    }
    if (c.status == 0) {
      EXPECT_EQ(manager.receive(), "READY=1\n" + last);
    }
    EXPECT_EQ(manager.receive(), "STOPPING=1\n" + last);
    EXPECT_EQ(manager.receive(), std::nullopt);
  }
}

}  // namespace
}  // namespace pallion::test
