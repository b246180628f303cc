#include <sys/stat.h>

#include "tests/programs/program_process.h"

namespace pallion::test {
namespace {

ProcessOutcome make(const std::string& root, const char* options, std::optional<uid_t> user = {}) {
  ChildProcess::Setup setup = setupOf("make-old-layout", {"--root", root}, wordsOf(options));
  setup.user = user;
  return runProcess(setup);
}

TEST(MakeOldLayout, TheSeedDecidesEverything) {
  TreeSnapshot trees[3];
  const char* options[] = {"--apps 9 --mess --seed 7", "--apps 9 --mess --seed 7",
                           "--apps 9 --mess --seed 8"};
  for (size_t i = 0; i < std::size(trees); ++i) {
    const TemporaryRoot root;
    ASSERT_EQ(make(root.path(), options[i]).status, 0);
    trees[i] = snapshotTree(root.path());
  }
  EXPECT_GT(trees[0].size(), 300U);
  EXPECT_EQ(difference(trees[0], trees[1]), "");
  EXPECT_NE(difference(trees[0], trees[2]), "");
}

TEST(MakeOldLayout, WrongUsageAndFailuresChangeNothingAndNameTheCause) {
  const TemporaryRoot parent;
  parent.makeFile("taken/private/var/mobile/Applications/kept.txt", "old");
  parent.makeFile("blocked/private/var/mobile/Library", "in the way");
  const TreeSnapshot before = snapshotTree(parent / "taken");
  const struct {
    const char* root;
    const char* options;
    int status;
    std::string error;
  } cases[] = {
      {"root", "--apps 0 --file-size -3", 2, "-3"},
      {"root", "--apps 0 --files 1.5", 2, "1.5"},
      {"root", "--apps 2 --placeholders 3", 2, "placeholders"},
      {"taken", "", 2, ""},
      {"blocked", "", 1, (parent / "blocked/private/var/mobile/Library") + ": Not a directory\n"},
  };
  for (const auto& c : cases) {
    const ProcessOutcome outcome = make(parent / c.root, c.options);
    EXPECT_EQ(outcome.status, c.status) << c.error;
    EXPECT_TRUE(outcome.err.starts_with("make-old-layout: ")) << outcome.err;
    EXPECT_NE(outcome.err.find(c.error), std::string::npos) << outcome.err;
  }
  EXPECT_FALSE(exists(parent / "root"));
  EXPECT_EQ(difference(before, snapshotTree(parent / "taken")), "");

  if (!isRoot()) GTEST_SKIP() << "becoming another user needs root";
  const TemporaryRoot root;
  ASSERT_EQ(chmod(root.path().c_str(), 0777), 0);
  const ProcessOutcome outcome = make(root.path(), "--apps 3 --mess", 12345);
  // The tree may stand in a directory that is closed to others.
  if (outcome.status == 127) GTEST_SKIP() << "the program is not readable for everyone";
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "make-old-layout: left out: owners, which only root can give\n");
}

}  // namespace
}  // namespace pallion::test
