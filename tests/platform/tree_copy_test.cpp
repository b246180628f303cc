#include "platform/tree_copy.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "foundation/unique_descriptor.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/refused_calls.h"
#include "tests/helpers/temporary_root.h"
#include "tests/helpers/tree_of_everything.h"
#include "tests/helpers/tree_snapshot.h"

namespace pallion {
namespace {

using test::accessList;
using test::buildTree;
using test::difference;
using test::Mount;
using test::must;
using test::setAttribute;
using test::snapshotTree;
using test::TemporaryRoot;
using test::writeAt;

constexpr test::SnapshotOptions kEverything{.accessTimes = true};

int copyTree(const std::string& source, const std::string& destination) {
  return TreeCopy::system().copy(source.c_str(), destination.c_str()) == 0 ? 0 : errno;
}

#define REQUIRE_ROOT_AND_MOUNTS()                                                  \
  if (!test::isRoot() || !test::canMount()) {                                      \
    GTEST_SKIP() << "needs to be root (owners, devices, attributes) and to mount"; \
  }

TEST(TreeCopyTest, KeepsEverythingBetweenVolumes) {
  REQUIRE_ROOT_AND_MOUNTS();
  if (!test::canMountImages()) GTEST_SKIP() << "needs loop devices and mkfs.ext4";
  struct Case {
    const char* name;
    const char* source;
    const char* destination;
    std::vector<long> missing;  // calls that the kernel is made to lack
    int answer = ENOSYS;
  };
  const std::vector<long> nameCalls{452, 463, 464, 465, 466};
  const std::vector<Case> cases{
      {"one ext4", "disk", "disk", {}},
      {"one tmpfs", "memory", "memory", {}},
      {"tmpfs to ext4", "memory", "disk", {}},
      {"ext4 to tmpfs", "disk", "memory", {}},
      {"no attribute calls by name", "disk", "disk", nameCalls},
      {"no offloading", "disk", "disk", {SYS_copy_file_range}},
      {"offloading that copies nothing", "disk", "disk", {SYS_copy_file_range}, 0},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    const TemporaryRoot root;
    EXPECT_TRUE(test::runInMountNamespace([&] {
      const Mount disk = Mount::ext4Image(root / "image", root.makeDirectory("disk"), 32);
      const Mount memory = Mount::tmpfs(root.makeDirectory("memory"));
      ASSERT_TRUE(disk.mounted() && memory.mounted());
      const std::string source = root / each.source + "/tree";
      const std::string copy = root / each.destination + "/copy";
      buildTree(source);
      const auto before = snapshotTree(source, kEverything);
      const auto workingDirectory = std::filesystem::current_path();
      for (long number : each.missing) ASSERT_TRUE(test::refuseCalls({number}, each.answer));
      ASSERT_EQ(copyTree(source, copy), 0);
      EXPECT_EQ(difference(before, snapshotTree(copy, kEverything)), "");
      EXPECT_EQ(difference(before, snapshotTree(source, kEverything)), "");
      EXPECT_EQ(std::filesystem::current_path(), workingDirectory);
    }));
  }
}

// Every kind of item as the top, into a directory that gives what is created in it a group, ACLs
// and, with the mask, a mode.
TEST(TreeCopyTest, TakesNothingFromTheDirectoryOfTheCopy) {
  REQUIRE_ROOT_AND_MOUNTS();
  const TemporaryRoot root;
  EXPECT_TRUE(test::runInMountNamespace([&] {
    const Mount memory = Mount::tmpfs(root.makeDirectory("memory"));
    buildTree(root / "memory/tree");
    const std::string parent = root.makeDirectory("memory/parent");
    must(chown(parent.c_str(), 0, 4321) == 0 && chmod(parent.c_str(), 02777) == 0);
    setAttribute(parent, "system.posix_acl_default", accessList(7));
    for (const mode_t mask : {022U, 0U, 0777U}) {
      SCOPED_TRACE(mask);
      umask(mask);
      std::vector<std::string> names{""};
      for (const auto& entry : std::filesystem::directory_iterator(root / "memory/tree")) {
        names.push_back(entry.path().filename());
      }
      for (const std::string& name : names) {
        const std::string source = root / "memory/tree/" + name;
        const std::string copy = parent + "/" + std::to_string(mask) + name.substr(0, 200);
        ASSERT_EQ(copyTree(source, copy + "/"), 0) << name;
        EXPECT_EQ(difference(snapshotTree(source, kEverything), snapshotTree(copy, kEverything)),
                  "");
      }
    }
  }));
}

TEST(TreeCopyTest, RefusesAndLeavesTheSourceWhole) {
  REQUIRE_ROOT_AND_MOUNTS();
  const TemporaryRoot root;
  struct Case {
    const char* name;
    const char* source;
    const char* destination;
    int expected;
  };
  const std::vector<Case> cases{
      {"file in the way", "m/tree", "m/file", EEXIST},
      {"directory in the way", "m/tree", "m/directory", EEXIST},
      {"link in the way of a directory", "m/tree", "m/link", EEXIST},
      {"link in the way of a file", "m/tree/plain", "m/link", EEXIST},
      {"link in the way of a link", "m/tree/dangling", "m/link", EEXIST},
      {"link in the way of a device", "m/tree/block", "m/link", EEXIST},
      {"no source", "m/none", "m/copy", ENOENT},
      {"no directory for the copy", "m/tree", "m/none/copy", ENOENT},
      {"inside itself", "m/tree", "m/tree/a/copy", EINVAL},
      {"a volume mounted inside", "m/holder", "m/copy1", EXDEV},
      {"a directory of the same volume mounted inside", "m/binder", "m/copy2", EXDEV},
      {"no space", "m/tree", "small/copy", ENOSPC},
      {"no inodes", "m/tree", "few/copy", ENOSPC},
      {"no attributes there", "m/tree", "plain/copy", ENOTSUP},
      {"more than the size says", "/proc/version", "m/version", EBUSY},
      {"less than the size says", "/sys/kernel/mm/transparent_hugepage/enabled", "m/huge", EBUSY},
  };
  EXPECT_TRUE(test::runInMountNamespace([&] {
    const Mount memory = Mount::tmpfs(root.makeDirectory("m"), "size=64m");
    const Mount small = Mount::tmpfs(root.makeDirectory("small"), "size=256k");
    const Mount few = Mount::tmpfs(root.makeDirectory("few"), "nr_inodes=10");
    must(mount("plain", root.makeDirectory("plain").c_str(), "ramfs", 0, nullptr) == 0);
    buildTree(root / "m/tree");
    root.makeFile("m/file", "in the way");
    root.makeFile("m/directory/file", "in the way");
    root.makeLink("m/link", "elsewhere");
    const Mount inside = Mount::tmpfs(root.makeDirectory("m/holder/mounted"));
    const Mount bound = Mount::bind(root / "m/directory", root.makeDirectory("m/binder/bound"));
    for (const Case& each : cases) {
      SCOPED_TRACE(each.name);
      const std::string source = *each.source == '/' ? each.source : root / each.source;
      const std::string destination = root / each.destination;
      if (*each.source == '/' && !test::exists(source)) continue;
      const auto tree = snapshotTree(root / "m/tree", {.ignoreDirectoryTimes = true});
      const auto inTheWay = snapshotTree(destination);
      EXPECT_EQ(copyTree(source, destination), each.expected);
      if (each.expected == EEXIST) {
        EXPECT_EQ(difference(inTheWay, snapshotTree(destination)), "");
      }
      if (each.expected == EINVAL) std::filesystem::remove_all(destination);
      EXPECT_EQ(difference(tree, snapshotTree(root / "m/tree", {.ignoreDirectoryTimes = true})),
                "");
    }
    EXPECT_FALSE(test::exists(root / "elsewhere"));
    umount((root / "plain").c_str());
  }));
}

TEST(TreeCopyTest, FailsWithWhateverCallFails) {
  REQUIRE_ROOT_AND_MOUNTS();
  const TemporaryRoot root;
  const std::vector<long> numbers{SYS_openat,
                                  SYS_statx,
                                  SYS_mkdirat,
                                  SYS_getdents64,
                                  SYS_read,
                                  SYS_pread64,
                                  SYS_pwrite64,
                                  SYS_lseek,
                                  SYS_ftruncate,
                                  SYS_copy_file_range,
                                  SYS_fchown,
                                  SYS_fchownat,
                                  SYS_fchmod,
                                  SYS_flistxattr,
                                  SYS_fgetxattr,
                                  SYS_fsetxattr,
                                  SYS_utimensat,
                                  SYS_linkat,
                                  SYS_symlinkat,
                                  SYS_readlinkat,
                                  SYS_mknodat,
                                  SYS_close,
                                  SYS_fremovexattr,
                                  452,
                                  463,
                                  464,
                                  465};
  for (const long number : numbers) {
    SCOPED_TRACE(number);
    EXPECT_TRUE(test::runInMountNamespace([&] {
      const Mount memory = Mount::tmpfs(root.makeDirectory("m"));
      buildTree(root / "m/tree");
      // Only without offloading are large files read.
      if (number == SYS_pread64) {
        ASSERT_TRUE(test::refuseCalls({SYS_copy_file_range}, EXDEV));
      }
      ASSERT_TRUE(test::refuseCalls({number}, EIO));
      EXPECT_EQ(copyTree(root / "m/tree", root / "m/copy"), EIO);
    }));
  }
}

// Each level has a name of 200 bytes, so the paths are far beyond what a system call takes.
TEST(TreeCopyTest, CopiesDeepTreesWithFewDescriptorsAndLittleStack) {
  REQUIRE_ROOT_AND_MOUNTS();
  constexpr int kDepth = 100000;
  const TemporaryRoot root;
  EXPECT_TRUE(test::runInMountNamespace([&] {
    const Mount memory = Mount::tmpfs(root.makeDirectory("m"));
    const std::string name(200, 'd');
    const std::string top = root.makeDirectory("m/tree");
    int linked = -1;
    int directory = open(top.c_str(), O_RDONLY | O_CLOEXEC);
    for (int depth = 0; depth < kDepth; ++depth) {
      // A second branch that is copied before or after the deep one, and links into both.
      if (depth == 40 || depth == kDepth - 1) {
        must(mkdirat(directory, "branch", 0750) == 0);
        if (linked < 0) {
          linked = openat(directory, "branch", O_PATH | O_CLOEXEC);
          must(mknodat(linked, "linked", S_IFREG | 0640, 0) == 0);
        } else {
          must(linkat(linked, "linked", directory, "branch/linked", 0) == 0);
        }
      }
      must(mkdirat(directory, name.c_str(), 0711) == 0);
      const int next = openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC);
      close(directory);
      directory = next;
    }
    close(directory);
    close(linked);
    const rlimit limit{64, 64};
    const rlimit stack{rlim_t{256} << 10, rlim_t{256} << 10};
    must(setrlimit(RLIMIT_NOFILE, &limit) == 0 && setrlimit(RLIMIT_STACK, &stack) == 0);
    ASSERT_EQ(copyTree(top, root / "m/copy"), 0);

    std::vector<ino_t> inodes;
    directory = open((root / "m/copy").c_str(), O_RDONLY | O_CLOEXEC);
    for (int depth = 0; depth < kDepth; ++depth) {
      struct stat status {};
      if (fstatat(directory, "branch/linked", &status, 0) == 0) inodes.push_back(status.st_ino);
      const int next = openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC);
      ASSERT_TRUE(next >= 0 && fstat(next, &status) == 0) << depth;
      ASSERT_EQ(status.st_mode & 07777U, 0711U) << depth;
      close(directory);
      directory = next;
    }
    close(directory);
    ASSERT_EQ(inodes.size(), 2U);
    EXPECT_EQ(inodes[0], inodes[1]);
  }));
}

// Shapes that cost time out of proportion to what is in them, if each item were done by itself.
TEST(TreeCopyTest, CopiesWideTreesLinkFarmsAndVastHoles) {
  REQUIRE_ROOT_AND_MOUNTS();
  constexpr int kWidth = 100000;
  constexpr int kLevels = 20000;
  constexpr off_t kVast = off_t{1} << 40;
  const TemporaryRoot root;
  EXPECT_TRUE(test::runInMountNamespace([&] {
    const Mount memory = Mount::tmpfs(root.makeDirectory("m"));
    writeAt(root.makeFile("m/tree/hole"), "end", kVast - 3);
    const std::string farm = root.makeFile("m/tree/farm/0");
    for (int i = 1; i < kWidth; ++i) {
      must(link(farm.c_str(), (root / "m/tree/farm/" + std::to_string(i)).c_str()) == 0);
    }
    for (int i = 0; i < kWidth; ++i) {
      const std::string path = root / "m/tree/" + std::to_string(i);
      must(i % 2 == 0 ? mkdir(path.c_str(), 0755) == 0 : mknod(path.c_str(), S_IFREG, 0) == 0);
    }
    // Every level has a name of an item whose first name is at the bottom of the other chain.
    std::vector<UniqueDescriptor> ends;
    for (const char* chain : {"one", "two"}) {
      ends.emplace_back(open(root.makeDirectory("m/chains").c_str(), O_PATH | O_CLOEXEC));
      must(mkdirat(ends.back().get(), chain, 0755) == 0);
      ends.back().reset(openat(ends.back().get(), chain, O_PATH | O_CLOEXEC));
      for (int i = 0; i < kLevels; ++i) {
        if (ends.size() == 2) must(linkat(ends[0].get(), "end", ends[1].get(), "end", 0) == 0);
        must(mkdirat(ends.back().get(), "d", 0755) == 0);
        ends.back().reset(openat(ends.back().get(), "d", O_PATH | O_CLOEXEC));
      }
      if (ends.size() == 1) must(mknodat(ends[0].get(), "end", S_IFREG | 0644, 0) == 0);
    }
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(copyTree(root / "m/tree", root / "m/copy"), 0);
    ASSERT_EQ(copyTree(root / "m/chains", root / "m/chains of the copy"), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
    struct stat status {};
    ASSERT_EQ(lstat((root / "m/copy/hole").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, kVast);
    EXPECT_LT(status.st_blocks * 512, 1 << 20);
    ASSERT_EQ(lstat((root / "m/copy/farm/77").c_str(), &status), 0);
    EXPECT_EQ(status.st_nlink, static_cast<nlink_t>(kWidth));
    ASSERT_EQ(lstat((root / "m/chains of the copy/two/end").c_str(), &status), 0);
    EXPECT_EQ(status.st_nlink, static_cast<nlink_t>(kLevels + 1));
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(root / "m/copy")) {
      count += entry.is_directory() || entry.is_regular_file() ? 1U : 0U;
    }
    EXPECT_EQ(count, size_t{kWidth} + 2);
  }));
}

TEST(TreeCopyTest, IsLedNowhereElseByLinksThatReplaceDirectories) {
  const TemporaryRoot root;
  root.makeFile("canary/canary", "not of the tree");
  root.makeFile("tree/a/victim/file", "of the tree");
  // Time for a swap between the reading of the directory and the entering of what it holds.
  for (int i = 0; i < 50; ++i) root.makeFile("tree/a/" + std::to_string(i), "of the tree");
  root.makeLink("link", root / "canary");
  std::atomic<bool> done = false;
  std::atomic<int> swaps = 0;
  std::thread swapper([&] {
    while (!done) {
      must(renameat2(AT_FDCWD, (root / "link").c_str(), AT_FDCWD, (root / "tree/a/victim").c_str(),
                     RENAME_EXCHANGE) == 0);
      ++swaps;
      // Renaming without a pause would keep the copy from the directories' locks.
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  });
  int failures = 0;
  int misled = 0;
  for (int round = 0; round < 100; ++round) {
    const std::string copy = root / ("copy" + std::to_string(round));
    failures += copyTree(root / "tree", copy) != 0 ? 1 : 0;
    std::error_code ignored;
    // Through the link that a whole copy may rightly hold one does reach the canary.
    const bool isLink = std::filesystem::is_symlink(copy + "/a/victim", ignored);
    misled += !isLink && test::exists(copy + "/a/victim/canary") ? 1 : 0;
    std::filesystem::remove_all(copy, ignored);
  }
  done = true;
  swapper.join();
  EXPECT_EQ(misled, 0);
  EXPECT_GT(swaps, 100);
  EXPECT_GT(failures, 0);
}

TEST(TreeCopyTest, FailsWhenWhatItCopiesChangesMeanwhile) {
  const TemporaryRoot root;
  const std::string large = root.makeFile("file", std::string(32 << 20, 'x'));
  for (int i = 0; i < 1000; ++i) root.makeFile("directory/" + std::to_string(i));
  struct Case {
    const char* source;
    std::function<void(int round)> change;
  };
  const std::vector<Case> cases{
      {"file", [&](int) { writeAt(large, "y", 5); }},
      {"directory", [&](int round) { root.makeFile("directory/+" + std::to_string(round)); }},
  };
  for (const Case& each : cases) {
    std::atomic<bool> done = false;
    std::atomic<int> changes = 0;
    std::thread writer([&] {
      while (!done) each.change(changes++);
    });
    while (changes < 2) std::this_thread::yield();
    EXPECT_EQ(copyTree(root / each.source, root / "copy of " + each.source), EBUSY) << each.source;
    done = true;
    writer.join();
  }
}

TEST(TreeCopyTest, SyncsTheVolumeOfAnyItem) {
  if (!test::canMount()) GTEST_SKIP() << "needs to mount";
  const TemporaryRoot root;
  EXPECT_TRUE(test::runInMountNamespace([&] {
    const Mount memory = Mount::tmpfs(root.makeDirectory("m"));
    const std::string file = root.makeFile("m/file");
    const std::string link = root.makeLink("m/link", "/nowhere");
    const std::string fifo = root / "m/fifo";
    must(mkfifo(fifo.c_str(), 0600) == 0);
    EXPECT_EQ(TreeCopy::system().syncVolume((root / "m/none").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    for (const std::string& path : {root / "m", file, link, fifo}) {
      EXPECT_EQ(TreeCopy::system().syncVolume(path.c_str()), 0) << path;
    }
    ASSERT_TRUE(test::refuseCalls({SYS_syncfs}, EIO));
    for (const std::string& path : {root / "m", file, link, fifo}) {
      EXPECT_EQ(TreeCopy::system().syncVolume(path.c_str()), -1) << path;
      EXPECT_EQ(errno, EIO) << path;
    }
  }));
}

}  // namespace
}  // namespace pallion
