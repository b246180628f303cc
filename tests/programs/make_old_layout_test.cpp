#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "foundation/property_list.h"
#include "tests/helpers/child_process.h"
#include "tests/helpers/temporary_root.h"
#include "tests/helpers/tree_snapshot.h"

namespace pallion::test {
namespace {

using Words = std::vector<std::string>;

ProcessOutcome make(const std::string& root, const Words& more, std::optional<uid_t> user = {}) {
  ChildProcess::Setup setup;
  setup.arguments = {std::string(PALLION_BINARY_DIR) + "/bin/make-old-layout", "--root", root};
  setup.arguments.insert(setup.arguments.end(), more.begin(), more.end());
  setup.user = user;
  return runProcess(setup);
}

TEST(MakeOldLayout, TheSeedDecidesEverything) {
  TreeSnapshot trees[3];
  const char* seeds[] = {"7", "7", "8"};
  for (size_t i = 0; i < std::size(seeds); ++i) {
    const TemporaryRoot root;
    ASSERT_EQ(make(root.path(), {"--apps", "9", "--mess", "--seed", seeds[i]}).status, 0);
    trees[i] = snapshotTree(root.path());
  }
  EXPECT_GT(trees[0].size(), 300U);
  EXPECT_EQ(difference(trees[0], trees[1]), "");
  EXPECT_NE(difference(trees[0], trees[2]), "");
}

TEST(MakeOldLayout, HoldsWhatWasAskedFor) {
  const TemporaryRoot root;
  const ProcessOutcome outcome =
      make(root.path(), {"--apps", "12", "--files", "15", "--file-size", "321", "--vpn", "3",
                         "--groups", "4", "--harbors", "2", "--placeholders", "3"});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_TRUE(
      outcome.out.starts_with("12 applications (3 of them placeholders), 3 VPN plug-ins "
                              "alone, 4 groups, 2 safe harbors, 0 awkward cases: "))
      << outcome.out;
  size_t applications = 0;
  for (const auto& item : std::filesystem::recursive_directory_iterator(root.path())) {
    applications += item.path().extension() == ".app" &&
                    item.path().parent_path().parent_path().filename() == "Applications";
  }
  EXPECT_EQ(applications, 12U);
  const auto sizeOf = [&](const char* path, const char* key) {
    const auto list = readDictionaryFile(URL::fileURL(root / path));
    const Value part = !list ? Value() : key ? list->get(key) : Value::dictionary(*list);
    return part.asDictionary() ? part.asDictionary()->size() : 0;
  };
  EXPECT_EQ(sizeOf("private/var/mobile/Library/Caches/com.orlix.pallion.plist", "GroupContainers"),
            4U);
  EXPECT_EQ(sizeOf("private/var/mobile/Library/Pallion/SafeHarbor.plist", nullptr), 2U);
}

TEST(MakeOldLayout, WrongUsageAndFailuresChangeNothingAndNameTheCause) {
  const TemporaryRoot parent;
  parent.makeFile("taken/private/var/mobile/Applications/kept.txt", "old");
  parent.makeFile("blocked/private/var/mobile/Library", "in the way");
  const TreeSnapshot before = snapshotTree(parent / "taken");
  const struct {
    const char* root;
    Words arguments;
    int status;
    std::string error;
  } cases[] = {
      {"root", {"--apps", "0", "--file-size", "-3"}, 2, "-3"},
      {"root", {"--apps", "0", "--files", "1.5"}, 2, "1.5"},
      {"root", {"--apps", "2", "--placeholders", "3"}, 2, "placeholders"},
      {"taken", {}, 2, ""},
      {"blocked", {}, 1, (parent / "blocked/private/var/mobile/Library") + ": Not a directory\n"},
  };
  for (const auto& c : cases) {
    const ProcessOutcome outcome = make(parent / c.root, c.arguments);
    EXPECT_EQ(outcome.status, c.status) << c.error;
    EXPECT_TRUE(outcome.err.starts_with("make-old-layout: ")) << outcome.err;
    EXPECT_NE(outcome.err.find(c.error), std::string::npos) << outcome.err;
  }
  EXPECT_FALSE(exists(parent / "root"));
  EXPECT_EQ(difference(before, snapshotTree(parent / "taken")), "");

  if (!isRoot()) GTEST_SKIP() << "becoming another user needs root";
  const TemporaryRoot root;
  ASSERT_EQ(chmod(root.path().c_str(), 0777), 0);
  const ProcessOutcome outcome = make(root.path(), {"--apps", "3", "--mess"}, 12345);
  // The tree may stand in a directory that is closed to others.
  if (outcome.status == 127) GTEST_SKIP() << "the program is not readable for everyone";
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "make-old-layout: left out: owners, which only root can give\n");
}

}  // namespace
}  // namespace pallion::test
