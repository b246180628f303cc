#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/helpers/mounts.h"
#include "tests/helpers/refused_calls.h"
#include "tests/platform/removal_fixture.h"

namespace pallion::test {
namespace {

TEST(Remove, TakesEveryKindOfItemAtTheTopAndBelow) {
  const TemporaryRoot root;
  const Canary canary(root);
  struct Kind {
    std::string name;
    std::function<bool(const char* path)> make;
  };
  const auto directory = [](const char* path) { return mkdir(path, 0700) == 0; };
  const std::vector<Kind> kinds = {
      {"file",
       [](const char* path) {
         touch(path);
         return true;
       }},
      {"empty", directory},
      {"full",
       [](const char* path) {
         std::filesystem::create_directories(std::string(path) + "/a/b/c");
         touch(std::string(path) + "/a/file");
         return true;
       }},
      {"unwritable",
       [](const char* path) {
         mkdir(path, 0700);
         touch(std::string(path) + "/file");
         return !test::isRoot() || chmod(path, 0) == 0;
       }},
      {"dangling", [](const char* path) { return symlink("nowhere", path) == 0; }},
      {"to-directory",
       [&](const char* path) { return symlink(canary.directory.c_str(), path) == 0; }},
      {"to-file", [&](const char* path) { return symlink(canary.file.c_str(), path) == 0; }},
      {"to itself", [](const char* path) { return symlink(".", path) == 0; }},
      {"hard link", [&](const char* path) { return link(canary.file.c_str(), path) == 0; }},
      {"fifo", [](const char* path) { return mkfifo(path, 0600) == 0; }},
      {"socket", [](const char* path) { return mknod(path, S_IFSOCK | 0600, 0) == 0; }},
      {"device",
       [](const char* path) {
         return !test::isRoot() || mknod(path, S_IFCHR | 0600, makedev(1, 3)) == 0;
       }},
      {"not \xFF\xFE text\n", directory},
      {std::string(size_t{255}, 'n'), directory},
      {"...", directory},
  };
  const std::string tree = root.makeDirectory("tree/below");
  for (const Kind& kind : kinds) {
    SCOPED_TRACE(kind.name);
    const std::string top = root / kind.name;
    ASSERT_TRUE(kind.make(top.c_str()));
    ASSERT_TRUE(kind.make((tree + "/" + kind.name).c_str()));
    const Removal outcome = removeAt(top);
    EXPECT_EQ(outcome.number, 0);
    EXPECT_FALSE(exists(top));
  }
  const Removal outcome = removeAt(root / "tree/");
  EXPECT_EQ(outcome.number, 0);
  EXPECT_EQ(outcome.reports, Reports{});
  EXPECT_FALSE(exists(root / "tree"));
  EXPECT_TRUE(canary.isWhole());
  // A slash at the end doesn't make the removal follow a link.
  root.makeLink("link", canary.directory);
  EXPECT_EQ(removeAt(root / "link/").number, 0);
  EXPECT_FALSE(exists(root / "link"));
  EXPECT_TRUE(canary.isWhole());
}

TEST(Remove, AnyDepthAndWidthWithFewDescriptorsAndLittleStack) {
  if (!test::canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  const TemporaryRoot root;
  EXPECT_TRUE(test::runInMountNamespace([&] {
    const auto volume = test::Mount::tmpfs(root.path(), "size=1g,nr_inodes=1m");
    ASSERT_TRUE(volume.mounted());
    const std::string deep = root.makeDirectory("deep");
    makeChain(deep, 100000);
    const std::string wide = root.makeDirectory("wide");
    for (int i = 0; i < 100000; ++i) touch(wide + "/" + std::to_string(i));
    // Deep branches that come back, again and again, to a directory whose descriptor was given up.
    const std::string comb = root.makeDirectory("comb");
    for (int i = 0; i < 40; ++i) makeChain(root.makeDirectory("comb/" + std::to_string(i)), 50);
    const rlimit descriptors{64, 64};
    const rlimit stack{rlim_t{256} << 10, rlim_t{256} << 10};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &descriptors), 0);
    ASSERT_EQ(setrlimit(RLIMIT_STACK, &stack), 0);
    for (const std::string& top : {deep, wide, comb}) {
      EXPECT_EQ(removeAt(top).number, 0) << top;
      EXPECT_FALSE(exists(top)) << top;
    }
  }));
}

TEST(Remove, PathsLongerThanTheKernelTakes) {
  const TemporaryRoot root;
  makeChain(root.makeDirectory("top"), 750);
  const std::string parent = root / ("top" + chainPath(700));
  for (const auto& [item, number] : std::vector<std::pair<std::string, int>>{
           {"/file", 0}, {"/missing", ENOENT}, {"/level", 0}, {"/level", ENOENT}}) {
    EXPECT_EQ(removeAt(parent + item).number, number) << item;
  }
  EXPECT_EQ(removeAt(parent).number, 0);
  EXPECT_EQ(removeAt(parent).number, ENOENT);
  EXPECT_TRUE(exists(root / ("top" + chainPath(300))));
}

TEST(Remove, TopPathsThatAreRefused) {
  const TemporaryRoot root;
  root.makeFile("dir/kept");
  if (!test::isRoot()) GTEST_SKIP() << "needs chroot";
  struct Case {
    const char* path;
    int number;
    bool reported;
  };
  const std::vector<Case> cases = {
      {"/missing", ENOENT, false}, {"/missing/item", ENOENT, false},
      {"", ENOENT, false},         {"/dir/kept/x", ENOTDIR, true},
      {"/dir/.", EINVAL, true},    {"/dir/..", EINVAL, true},
      {"..", EINVAL, true},        {"/", EBUSY, true},
      {"///", EBUSY, true},
  };
  // Below a root of its own: a mistake here may not reach the machine.
  EXPECT_TRUE(test::runInMountNamespace([&] {
    ASSERT_EQ(chroot(root.path().c_str()), 0);
    ASSERT_EQ(chdir("/dir"), 0);
    for (const Case& each : cases) {
      SCOPED_TRACE(each.path);
      const Removal outcome = removeAt(each.path);
      EXPECT_EQ(outcome.number, each.number);
      EXPECT_EQ(outcome.reports.size(), each.reported ? 1U : 0U);
      ASSERT_TRUE(exists("/dir/kept"));
    }
  }));
}

// Without the feature "filetype", ext4 tells no entry's kind.
TEST(Remove, FileSystemsThatTellNoKinds) {
  if (!test::canMountImages()) GTEST_SKIP() << "needs loop devices and mkfs.ext4";
  const TemporaryRoot root;
  const std::string volume = root.makeDirectory("volume");
  const std::string top = volume + "/top";
  const std::string image = root.makeFile("image");
  const std::string command = "truncate -s 8M " + image + " && mkfs.ext4 -q -O ^filetype " + image +
                              " && mount -o loop " + image + " " + volume;
  EXPECT_TRUE(test::runInMountNamespace([&] {
    ASSERT_EQ(std::system(command.c_str()), 0);
    std::filesystem::create_directories(top + "/locked/sub");
    for (const char* file : {"/a", "/locked/sub/b"}) touch(top + file);
    {
      // Nothing in it can be removed, yet what is in its directories can.
      const Immutable lock(top + "/locked");
      EXPECT_EQ(removeAt(top).reports, (Reports{{top + "/locked/sub", EPERM}}));
      EXPECT_FALSE(exists(top + "/locked/sub/b"));
      EXPECT_FALSE(exists(top + "/a"));
    }
    EXPECT_EQ(removeAt(top).number, 0);
    EXPECT_FALSE(exists(top));
  }));
}

TEST(Remove, DirectoriesThatCannotBeReadAreReported) {
  if (!test::canMount()) GTEST_SKIP() << "needs a namespace of its own";
  const TemporaryRoot root;
  chmod(root.path().c_str(), 0777);
  const std::string top = root / "top";
  EXPECT_TRUE(test::runInMountNamespace([&] {
    ASSERT_EQ(setgid(65534) + setuid(65534), 0);
    for (const char* name : {"/closed-empty", "/closed", "/unwritable"}) {
      std::filesystem::create_directories(top + name);
    }
    touch(top + "/closed/x");
    touch(top + "/unwritable/x");
    chmod((top + "/closed-empty").c_str(), 0);
    chmod((top + "/closed").c_str(), 0);
    chmod((top + "/unwritable").c_str(), 0500);
    const Removal outcome = removeAt(top);
    EXPECT_EQ(outcome.number, EACCES);
    EXPECT_EQ(outcome.reports,
              (Reports{{top + "/closed", EACCES}, {top + "/unwritable/x", EACCES}}));
    EXPECT_FALSE(exists(top + "/closed-empty"));
  }));
  for (const auto& [call, number] : {std::pair{SYS_getdents64, EIO}, {SYS_statx, EIO}}) {
    EXPECT_TRUE(test::runInMountNamespace([&, refused = call, error = number] {
      ASSERT_TRUE(test::refuseCalls({refused}, error));
      const Removal outcome = removeAt(top);
      EXPECT_EQ(outcome.number, error);
      EXPECT_EQ(outcome.reports, (Reports{{top, error}}));
    })) << call;
    EXPECT_TRUE(exists(top + "/unwritable/x"));
  }
  EXPECT_EQ(removeAt(top).number, 0);
}

}  // namespace
}  // namespace pallion::test
