#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <memory>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/recursive_remove.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/refused_calls.h"
#include "tests/helpers/temporary_root.h"

namespace pallion {
namespace {

using test::exists;
using test::TemporaryRoot;

using Reports = std::vector<std::pair<std::string, int>>;

// One removal: its outcome, and what it reported in the order of the paths.
struct Outcome {
  int number = 0;
  Reports reports;
};

Outcome removeAt(
    const std::string& path, const std::function<bool()>& onReport = [] { return true; }) {
  struct Context {
    Outcome outcome;
    const std::function<bool()>& onReport;
  } context{{}, onReport};
  RemovalState state;
  state.setErrorContext(&context);
  state.setErrorCallback([](RemovalState& reporting, const char* item, void* opaque) {
    auto& seen = *static_cast<Context*>(opaque);
    int number = 0;
    reporting.errorNumber(number);
    seen.outcome.reports.emplace_back(item, number);
    return seen.onReport();
  });
  context.outcome.number = RecursiveRemove::system().remove(path.c_str(), state) == 0 ? 0 : errno;
  std::sort(context.outcome.reports.begin(), context.outcome.reports.end());
  return std::move(context.outcome);
}

// Keeps a file from being removed for as long as it lives.
class Immutable {
 public:
  explicit Immutable(std::string path) : path_(std::move(path)) { works_ = set(FS_IMMUTABLE_FL); }
  Immutable(const Immutable&) = delete;
  Immutable& operator=(const Immutable&) = delete;
  ~Immutable() { works_ = set(0); }
  [[nodiscard]] bool works() const { return works_; }
  void moved(std::string path) { path_ = std::move(path); }

 private:
  [[nodiscard]] bool set(int flags) const {
    const int file = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    const bool done = file >= 0 && ioctl(file, FS_IOC_SETFLAGS, &flags) == 0;
    if (file >= 0) close(file);
    return done;
  }

  std::string path_;
  bool works_ = false;
};

// A directory outside every tree that is removed, to which links in the trees lead.
struct Canary {
  explicit Canary(const TemporaryRoot& root) : directory(root.makeDirectory("canary")) {
    file = root.makeFile("canary/sub/file", "alive");
  }
  [[nodiscard]] bool isWhole() const { return test::readAll(file) == "alive"; }

  std::string directory;
  std::string file;
};

void makeChain(const std::string& top, int levels) {
  int directory = open(top.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
  for (int i = 0; i < levels && directory >= 0; ++i) {
    close(openat(directory, "file", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    mkdirat(directory, "level", 0700);
    const int next = openat(directory, "level", O_DIRECTORY | O_RDONLY | O_CLOEXEC);
    close(directory);
    directory = next;
  }
  ASSERT_GE(directory, 0);
  close(directory);
}

std::string chainPath(int levels) {
  std::string path;
  for (int i = 0; i < levels; ++i) path += "/level";
  return path;
}

void makeFile(const std::string& path) {
  close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
}

size_t countFiles(const std::string& top) {
  size_t count = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
    if (entry.is_regular_file()) ++count;
  }
  return count;
}

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
         makeFile(path);
         return true;
       }},
      {"empty", directory},
      {"full",
       [](const char* path) {
         std::filesystem::create_directories(std::string(path) + "/a/b/c");
         makeFile(std::string(path) + "/a/file");
         return true;
       }},
      {"unwritable",
       [](const char* path) {
         mkdir(path, 0700);
         makeFile(std::string(path) + "/file");
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
    const Outcome outcome = removeAt(top);
    EXPECT_EQ(outcome.number, 0);
    EXPECT_FALSE(exists(top));
  }
  const Outcome outcome = removeAt(root / "tree/");
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
    makeChain(deep, 20000);
    const std::string wide = root.makeDirectory("wide");
    for (int i = 0; i < 100000; ++i) makeFile(wide + "/" + std::to_string(i));
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
      const Outcome outcome = removeAt(each.path);
      EXPECT_EQ(outcome.number, each.number);
      EXPECT_EQ(outcome.reports.size(), each.reported ? 1U : 0U);
      ASSERT_TRUE(exists("/dir/kept"));
    }
  }));
}

TEST(Remove, ReportsEachFailingItemOnceByItsPathAndGoesOn) {
  const TemporaryRoot root;
  const std::string top = root.makeDirectory("top");
  makeChain(top, 100);
  Reports expected;
  std::vector<std::string> stuck;
  // At levels that keep their descriptors, that lose them, and beside branches that make the walk
  // come back.
  for (const char* level : {"", "/level", "/level/level/level"}) {
    for (int i = 0; i < 5; ++i)
      makeChain(root.makeDirectory("top" + std::string(level) + "/b" + std::to_string(i)), 60);
    stuck.push_back(top + level + "/b2/level/stuck");
    stuck.push_back(top + level + "/stuck");
  }
  stuck.push_back(top + chainPath(90) + "/stuck");
  std::vector<std::unique_ptr<Immutable>> locks;
  for (const std::string& path : stuck) {
    makeFile(path);
    locks.push_back(std::make_unique<Immutable>(path));
    if (!locks.back()->works())
      GTEST_SKIP() << "needs a file system with immutable files, and root";
    expected.emplace_back(path, EPERM);
  }
  std::sort(expected.begin(), expected.end());

  const Outcome stopped = removeAt(top, [] { return false; });
  EXPECT_EQ(stopped.number, EPERM);
  EXPECT_EQ(stopped.reports.size(), 1U);
  const Outcome outcome = removeAt(top);
  EXPECT_EQ(outcome.number, EPERM);
  EXPECT_EQ(outcome.reports, expected);
  EXPECT_EQ(countFiles(top), stuck.size());
  const Outcome single = removeAt(stuck[1]);
  EXPECT_EQ(single.reports, (Reports{{stuck[1], EPERM}}));

  locks.clear();
  EXPECT_EQ(removeAt(top).number, 0);
}

TEST(Remove, ADirectoryMovedAwayLeadsNowhereElse) {
  const TemporaryRoot root;
  const Canary canary(root);
  makeChain(root.makeDirectory("top"), 80);
  for (int i = 0; i < 50; ++i) root.makeFile("top/level/" + std::to_string(i));
  const std::string stuck = root.makeFile("top" + chainPath(70) + "/stuck");
  Immutable lock(stuck);
  if (!lock.works()) GTEST_SKIP() << "needs a file system with immutable files, and root";
  // The walk stands far below when its way back is moved beside the canary.
  const std::string moved = canary.directory + "/moved";
  const Outcome outcome = removeAt(
      root / "top", [&] { return rename((root / "top/level/level").c_str(), moved.c_str()) == 0; });
  lock.moved(moved + chainPath(68) + "/stuck");
  EXPECT_EQ(outcome.reports, (Reports{{stuck, EPERM}}));
  EXPECT_TRUE(canary.isWhole());
  EXPECT_EQ(countFiles(root / "top"), 0U);
  EXPECT_TRUE(exists(moved + chainPath(68) + "/stuck"));
}

TEST(Remove, ExchangedLinksLeadNowhereElse) {
  const TemporaryRoot root;
  const Canary canary(root);
  const std::string top = root / "tree";
  std::atomic<bool> removing = false;
  std::atomic<int> swaps = 0;
  const std::jthread swapper([&](const std::stop_token& stop) {
    const std::string first = top + "/a/first";
    const std::string second = top + "/a/second";
    while (!stop.stop_requested()) {
      const bool swapped =
          renameat2(AT_FDCWD, first.c_str(), AT_FDCWD, second.c_str(), RENAME_EXCHANGE) == 0;
      if (swapped && removing) ++swaps;
    }
  });
  int failures = 0;
  for (int round = 0; round < 150; ++round) {
    // Complete before the swapper finds it.
    root.makeLink("new/a/second", canary.directory);
    for (int i = 0; i < 30; ++i) root.makeFile("new/a/first/sub/" + std::to_string(i));
    ASSERT_EQ(rename((root / "new").c_str(), top.c_str()), 0);
    removing = true;
    const Outcome outcome = removeAt(top);
    removing = false;
    ASSERT_EQ(outcome.number == 0, outcome.reports.empty());
    ASSERT_EQ(outcome.number == 0, !exists(top));
    ASSERT_TRUE(canary.isWhole());
    if (outcome.number == 0) continue;
    const std::string left = root / ("left" + std::to_string(++failures));
    ASSERT_EQ(rename(top.c_str(), left.c_str()), 0);
  }
  EXPECT_GT(swaps, 150);
  RecordProperty("swaps", swaps);
  RecordProperty("failures", failures);
}

TEST(Remove, WhatIsMountedInTheTreeStays) {
  if (!test::canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  const TemporaryRoot root;
  const Canary canary(root);
  const std::string top = root.makeDirectory("top");
  for (const char* name : {"volume", "bound", "gone", "in/bound"}) {
    root.makeDirectory("top/" + std::string(name));
  }
  root.makeFile("top/file");
  root.makeFile("top/in/file");
  EXPECT_TRUE(test::runInMountNamespace([&] {
    const auto volume = test::Mount::tmpfs(top + "/volume");
    const auto bound = test::Mount::bind(canary.directory, top + "/bound");
    const auto below = test::Mount::bind(canary.directory, top + "/in/bound");
    const auto file = test::Mount::bind(canary.file, top + "/file");
    ASSERT_TRUE(volume.mounted() && bound.mounted() && below.mounted() && file.mounted());
    makeFile(top + "/volume/inside");
    Outcome outcome = removeAt(top);
    EXPECT_EQ(outcome.number, EBUSY);
    EXPECT_EQ(outcome.reports, (Reports{{top + "/bound", EBUSY},
                                        {top + "/file", EBUSY},
                                        {top + "/in/bound", EBUSY},
                                        {top + "/volume", EBUSY}}));
    EXPECT_TRUE(canary.isWhole());
    EXPECT_TRUE(exists(top + "/volume/inside"));
    EXPECT_FALSE(exists(top + "/gone"));
    EXPECT_FALSE(exists(top + "/in/file"));
    outcome = removeAt(top + "/bound");
    EXPECT_EQ(outcome.reports, (Reports{{top + "/bound", EBUSY}}));
    EXPECT_TRUE(canary.isWhole());
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
    for (const char* file : {"/a", "/locked/sub/b"}) makeFile(top + file);
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
    makeFile(top + "/closed/x");
    makeFile(top + "/unwritable/x");
    chmod((top + "/closed-empty").c_str(), 0);
    chmod((top + "/closed").c_str(), 0);
    chmod((top + "/unwritable").c_str(), 0500);
    const Outcome outcome = removeAt(top);
    EXPECT_EQ(outcome.number, EACCES);
    EXPECT_EQ(outcome.reports,
              (Reports{{top + "/closed", EACCES}, {top + "/unwritable/x", EACCES}}));
    EXPECT_FALSE(exists(top + "/closed-empty"));
  }));
  for (const auto& [call, number] : {std::pair{SYS_getdents64, EIO}, {SYS_statx, EIO}}) {
    EXPECT_TRUE(test::runInMountNamespace([&, refused = call, error = number] {
      ASSERT_TRUE(test::refuseCalls({refused}, error));
      const Outcome outcome = removeAt(top);
      EXPECT_EQ(outcome.number, error);
      EXPECT_EQ(outcome.reports, (Reports{{top, error}}));
    })) << call;
    EXPECT_TRUE(exists(top + "/unwritable/x"));
  }
  EXPECT_EQ(removeAt(top).number, 0);
}

}  // namespace
}  // namespace pallion
