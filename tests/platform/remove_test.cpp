#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "foundation/unique_descriptor.h"
#include "platform/recursive_remove.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/refused_calls.h"
#include "tests/helpers/temporary_root.h"
#include "tests/helpers/tree_of_everything.h"

namespace pallion::test {
namespace {

namespace fs = std::filesystem;
using Reports = std::vector<std::pair<std::string, int>>;

// One removal: the errno it ended with (0: success), and what it reported in the order of the
// paths.
struct Removal {
  int number = 0;
  Reports reports;
};

// `onReport` answers whether the removal is to go on.
Removal removeAt(
    const std::string& path, const std::function<bool()>& onReport = [] { return true; }) {
  struct Context {
    Removal outcome;
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

void touch(const std::string& path) {
  close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
}

// Directories named "level" in each other below `top`, with a file beside each.
void makeChain(const std::string& top, int levels) {
  fs::create_directories(top);
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

// The path from the top of a chain to the last of so many levels, with a slash before it.
std::string chainPath(int levels) {
  std::string path;
  while (levels-- > 0) path += "/level";
  return path;
}

size_t countFiles(const std::string& top) {
  return static_cast<size_t>(std::count_if(fs::recursive_directory_iterator(top), {},
                                           [](const auto& e) { return e.is_regular_file(); }));
}

// What is removed, and a directory outside to which links in it lead.
class Remove : public testing::Test {
 protected:
  [[nodiscard]] bool canaryIsWhole() const { return readAll(canaryFile_) == "alive"; }

  TemporaryRoot root_;
  std::string top_ = root_ / "top";
  std::string canary_ = root_.makeDirectory("canary");
  std::string canaryFile_ = root_.makeFile("canary/sub/file", "alive");
};

TEST_F(Remove, TakesEveryKindOfItemAtTheTopAndBelow) {
  if (!isRoot()) GTEST_SKIP() << "needs to make devices and attributes";
  for (const bool oneByOne : {true, false}) {
    buildTree(top_);
    root_.makeDirectory("top/...");
    root_.makeLink("top/to a directory outside", canary_);
    root_.makeLink("top/to a file outside", canaryFile_);
    fs::create_hard_link(canaryFile_, top_ + "/name of a file outside");
    std::vector<fs::path> items{top_};
    if (oneByOne) items.assign(fs::directory_iterator(top_), fs::directory_iterator());
    for (const fs::path& item : items) {
      // A slash at the end doesn't make the removal follow a link.
      const Removal outcome = removeAt(item / "");
      EXPECT_EQ(outcome.number, 0) << item;
      EXPECT_EQ(outcome.reports, Reports{});
      EXPECT_FALSE(exists(item)) << item;
    }
    EXPECT_TRUE(canaryIsWhole());
    fs::remove(top_);
  }
}

TEST_F(Remove, AnyDepthAndWidthWithFewDescriptorsAndLittleStack) {
  if (!canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  EXPECT_TRUE(runInMountNamespace([&] {
    const auto volume = Mount::tmpfs(root_.path(), "size=1g,nr_inodes=1m");
    ASSERT_TRUE(volume.mounted());
    makeChain(root_ / "deep", 100000);
    const std::string wide = root_.makeDirectory("wide");
    for (int i = 0; i < 100000; ++i) touch(wide + "/" + std::to_string(i));
    // Deep branches that come back, again and again, to a directory whose descriptor was given up.
    for (int i = 0; i < 40; ++i) makeChain(root_ / ("comb/" + std::to_string(i)), 50);
    const rlimit descriptors{64, 64};
    const rlimit stack{rlim_t{256} << 10, rlim_t{256} << 10};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &descriptors) + setrlimit(RLIMIT_STACK, &stack), 0);
    for (const char* top : {"deep", "wide", "comb"}) {
      EXPECT_EQ(removeAt(root_ / top).number, 0) << top;
      EXPECT_FALSE(exists(root_ / top)) << top;
    }
  }));
}

TEST_F(Remove, TopPathsThatAreLongOrRefused) {
  makeChain(top_, 750);
  const std::string parent = top_ + chainPath(700);  // longer than the kernel takes
  for (const auto& [item, number] :
       {std::pair{"/file", 0}, {"/missing", ENOENT}, {"/level", 0}, {"/level", ENOENT}, {"", 0}})
    EXPECT_EQ(removeAt(parent + item).number, number) << item;
  EXPECT_TRUE(exists(top_ + chainPath(300)));
  if (!isRoot() || !canMount()) GTEST_SKIP() << "needs chroot";
  const std::tuple<const char*, int, size_t> cases[] = {
      {"/missing", ENOENT, 0}, {"/missing/item", ENOENT, 0},
      {"", ENOENT, 0},         {"/dir/kept/x", ENOTDIR, 1},
      {"/dir/.", EINVAL, 1},   {"/dir/..", EINVAL, 1},
      {"..", EINVAL, 1},       {"/", EBUSY, 1},
      {"///", EBUSY, 1}};
  root_.makeFile("dir/kept");
  // Below a root of its own: a mistake here may not reach the machine.
  EXPECT_TRUE(runInMountNamespace([&] {
    ASSERT_EQ(chroot(root_.path().c_str()) + chdir("/dir"), 0);
    for (const auto& [path, number, reports] : cases) {
      const Removal outcome = removeAt(path);
      EXPECT_EQ(outcome.number, number) << path;
      EXPECT_EQ(outcome.reports.size(), reports) << path;
      ASSERT_TRUE(exists("/dir/kept")) << path;
    }
  }));
}

// Without the feature "filetype", ext4 tells no entry's kind.
TEST_F(Remove, FileSystemsThatTellNoKinds) {
  if (!canMountImages()) GTEST_SKIP() << "needs loop devices and mkfs.ext4";
  const std::string image = root_.makeFile("image");
  const std::string command = "truncate -s 8M " + image + " && mkfs.ext4 -q -O ^filetype " + image +
                              " && mount -o loop " + image + " " + root_.makeDirectory("top");
  EXPECT_TRUE(runInMountNamespace([&] {
    ASSERT_EQ(std::system(command.c_str()), 0);
    const std::string tree = top_ + "/tree";
    fs::create_directories(tree + "/locked/sub");
    for (const char* file : {"/a", "/locked/sub/b"}) touch(tree + file);
    // Nothing in it can be removed, yet what is in its directories can.
    ASSERT_EQ(std::system(("chattr +i " + tree + "/locked").c_str()), 0);
    EXPECT_EQ(removeAt(tree).reports, (Reports{{tree + "/locked/sub", EPERM}}));
    EXPECT_FALSE(exists(tree + "/locked/sub/b") || exists(tree + "/a"));
    ASSERT_EQ(std::system(("chattr -i " + tree + "/locked").c_str()), 0);
    EXPECT_EQ(removeAt(tree).number, 0);
    EXPECT_FALSE(exists(tree));
  }));
}

TEST_F(Remove, DirectoriesThatCannotBeReadAreReported) {
  if (!isRoot() || !canMount()) GTEST_SKIP() << "needs a namespace of its own and another user";
  chmod(root_.path().c_str(), 0777);
  EXPECT_TRUE(runInMountNamespace([&] {
    ASSERT_EQ(setgid(65534) + setuid(65534), 0);
    for (const char* name : {"/empty", "/closed", "/kept"}) fs::create_directories(top_ + name);
    touch(top_ + "/closed/x");
    touch(top_ + "/kept/x");
    for (const auto& [name, mode] : {std::pair{"/empty", 0U}, {"/closed", 0U}, {"/kept", 0500U}})
      chmod((top_ + name).c_str(), mode);
    const Removal outcome = removeAt(top_);
    EXPECT_EQ(outcome.number, EACCES);
    EXPECT_EQ(outcome.reports, (Reports{{top_ + "/closed", EACCES}, {top_ + "/kept/x", EACCES}}));
    EXPECT_FALSE(exists(top_ + "/empty"));
  }));
  for (const long call : {SYS_getdents64, SYS_openat2}) {
    EXPECT_TRUE(runInMountNamespace([&] {
      ASSERT_TRUE(refuseCalls({call}, EIO));
      const Removal outcome = removeAt(top_);
      EXPECT_EQ(outcome.number, EIO);
      EXPECT_EQ(outcome.reports, (Reports{{top_, EIO}}));
    })) << call;
    EXPECT_TRUE(exists(top_ + "/kept/x"));
  }
  // A directory that is left for one far below is looked at first, to be known again.
  makeChain(top_, 40);
  EXPECT_TRUE(runInMountNamespace([&] {
    ASSERT_TRUE(refuseCalls({SYS_newfstatat, SYS_fstat}, EIO));
    EXPECT_EQ(removeAt(top_).number, EIO);
  }));
  EXPECT_TRUE(exists(top_ + chainPath(32)));
}

// A file on which something is mounted can't be removed, wherever its directories are moved.
void pinDown(const std::string& file) {
  ASSERT_EQ(mount("/dev/null", file.c_str(), nullptr, MS_BIND, nullptr), 0);
}

TEST_F(Remove, ReportsEachFailingItemOnceByItsPathAndGoesOn) {
  if (!canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  makeChain(top_, 100);
  std::vector<std::string> stuck = {top_ + chainPath(90) + "/stuck"};
  // At levels that keep their descriptors, that lose them, and beside branches that make the walk
  // come back.
  for (const int depth : {0, 1, 3}) {
    const std::string level = top_ + chainPath(depth);
    for (int i = 0; i < 5; ++i) makeChain(level + "/b" + std::to_string(i), 60);
    stuck.push_back(level + "/b2/level/stuck");
    stuck.push_back(level + "/stuck");
  }
  std::sort(stuck.begin(), stuck.end());
  EXPECT_TRUE(runInMountNamespace([&] {
    Reports expected;
    for (const std::string& path : stuck) {
      touch(path);
      pinDown(path);
      expected.emplace_back(path, EBUSY);
    }
    const Removal stopped = removeAt(top_, [] { return false; });
    EXPECT_EQ(stopped.number, EBUSY);
    EXPECT_EQ(stopped.reports.size(), 1U);
    const Removal outcome = removeAt(top_ + "//");
    EXPECT_EQ(outcome.number, EBUSY);
    EXPECT_EQ(outcome.reports, expected);
    EXPECT_EQ(removeAt(stuck[0]).reports, (Reports{expected[0]}));
  }));
  EXPECT_EQ(countFiles(top_), stuck.size());
  EXPECT_EQ(removeAt(top_).number, 0);
}

TEST_F(Remove, ItemsAtTheTopAreOfferedBeforeTheyGo) {
  class Offered final : public RemovalState {
   public:
    explicit Offered(std::string place) : place_(std::move(place)) {}
    int offer(int directory, const char* name) override {
      const std::string_view item = name;
      if (item == "stays") return EPERM;
      if (item != "taken" && item != "taken directory") return kRemoveIt;
      return renameat(directory, name, AT_FDCWD, (place_ + "/" + name).c_str()) == 0 ? 0 : errno;
    }

   private:
    std::string place_;
  };
  const std::string place = root_.makeDirectory("place");
  for (const char* name : {"taken", "taken directory/file", "stays", "goes", "goes too/stays"})
    root_.makeFile(std::string("top/") + name, name);
  const UniqueDescriptor directory(open(root_.path().c_str(), O_PATH | O_CLOEXEC));
  Offered state(place);
  state.startAt(directory.get());
  state.expect(RemovalState::Expected::kFilledDirectory);
  EXPECT_EQ(RecursiveRemove::system().remove("top", state), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_TRUE(countFiles(top_) == 1 && exists(top_ + "/stays"));
  for (const char* name : {"taken", "taken directory/file"})
    EXPECT_EQ(readAll(place + "/" + name), name);
  fs::remove(top_ + "/stays");
  for (int time = 0; time < 2; ++time)  // what is not there counts as removed
    EXPECT_EQ(RecursiveRemove::system().remove("top", state), 0);
  EXPECT_FALSE(exists(top_));
}

TEST_F(Remove, ADirectoryMovedAwayLeadsNowhereElse) {
  if (!canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  // Files beside what is moved are to be removed all the same; with the next level moved as well,
  // the way down from the top ends early, too.
  for (const auto& [files, movesNextAsWell] : {std::pair{"top/level/", false}, {"top/", true}}) {
    SCOPED_TRACE(files);
    makeChain(top_, 80);
    for (int i = 0; i < 50; ++i) root_.makeFile(files + std::to_string(i));
    const std::string stuck = root_.makeFile("top" + chainPath(70) + "/stuck");
    const std::string moved = canary_ + "/moved";
    EXPECT_TRUE(runInMountNamespace([&, next = movesNextAsWell] {
      pinDown(stuck);
      // The walk stands far below when its way back is moved beside the canary.
      const Removal outcome = removeAt(top_, [&] {
        rename((top_ + "/level/level").c_str(), moved.c_str());
        if (next) rename((top_ + "/level").c_str(), (canary_ + "/next").c_str());
        return true;
      });
      EXPECT_EQ(outcome.number, EBUSY);
      EXPECT_EQ(outcome.reports, (Reports{{stuck, EBUSY}}));
    }));
    EXPECT_TRUE(canaryIsWhole());
    EXPECT_TRUE(exists(moved + chainPath(68) + "/stuck"));
    EXPECT_EQ(exists(top_), !movesNextAsWell);
    EXPECT_TRUE(!exists(top_) || countFiles(top_) == 0);
    for (const std::string& rest : {top_, moved, canary_ + "/next"}) removeAt(rest);
  }
}

TEST_F(Remove, WhatIsMountedInTheTreeStays) {
  if (!canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  for (const char* name : {"top/volume", "top/bound", "top/gone", "top/in/bound"})
    root_.makeDirectory(name);
  for (const char* name : {"top/file", "top/in/file"}) root_.makeFile(name);
  EXPECT_TRUE(runInMountNamespace([&] {
    const auto volume = Mount::tmpfs(top_ + "/volume");
    const auto bound = Mount::bind(canary_, top_ + "/bound");
    const auto below = Mount::bind(canary_, top_ + "/in/bound");
    const auto file = Mount::bind(canaryFile_, top_ + "/file");
    ASSERT_TRUE(volume.mounted() && bound.mounted() && below.mounted() && file.mounted());
    touch(top_ + "/volume/inside");
    const Removal outcome = removeAt(top_);
    EXPECT_EQ(outcome.number, EBUSY);
    EXPECT_EQ(outcome.reports, (Reports{{top_ + "/bound", EBUSY},
                                        {top_ + "/file", EBUSY},
                                        {top_ + "/in/bound", EBUSY},
                                        {top_ + "/volume", EBUSY}}));
    EXPECT_EQ(removeAt(top_ + "/bound").reports, (Reports{{top_ + "/bound", EBUSY}}));
    EXPECT_TRUE(canaryIsWhole() && exists(top_ + "/volume/inside"));
    EXPECT_FALSE(exists(top_ + "/gone") || exists(top_ + "/in/file"));
  }));
}

}  // namespace
}  // namespace pallion::test
