#include "platform/tree_copy.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "tests/helpers/mounts.h"
#include "tests/helpers/refused_calls.h"
#include "tests/helpers/temporary_root.h"
#include "tests/helpers/tree_of_everything.h"
#include "tests/helpers/tree_snapshot.h"

namespace pallion::test {
namespace {

constexpr SnapshotOptions kEverything{.accessTimes = true};

int copyTree(const std::string& source, const std::string& destination) {
  return TreeCopy::system().copy(source.c_str(), destination.c_str()) == 0 ? 0 : errno;
}

class TreeCopyTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!isRoot() || !canMount())
      GTEST_SKIP() << "needs to be root (owners, devices, attributes) and to mount";
  }
  // In a namespace in which <root>/m is a volume of its own.
  void onVolume(const std::function<void()>& body) const {
    EXPECT_TRUE(runInMountNamespace([&] {
      const Mount memory = Mount::tmpfs(root_.makeDirectory("m"));
      ASSERT_TRUE(memory.mounted());
      body();
    }));
  }

  TemporaryRoot root_;
  std::string tree_ = root_ / "m/tree";
  std::string copy_ = root_ / "m/copy";
};

TEST_F(TreeCopyTest, KeepsEverythingBetweenVolumes) {
  if (!canMountImages()) GTEST_SKIP() << "needs loop devices and mkfs.ext4";
  const struct {
    const char* name;
    const char* source;
    const char* destination;
    std::initializer_list<long> missing = {};  // calls that the kernel is made to lack
    int answer = ENOSYS;
  } cases[] = {{"one ext4", "disk", "disk"},
               {"one tmpfs", "m", "m"},
               {"tmpfs to ext4", "m", "disk"},
               {"ext4 to tmpfs", "disk", "m"},
               {"no attribute calls by name", "disk", "disk", {452, 463, 464, 465, 466}},
               {"no offloading", "disk", "disk", {SYS_copy_file_range}},
               {"offloading that copies nothing", "disk", "disk", {SYS_copy_file_range}, 0}};
  for (const auto& each : cases) {
    SCOPED_TRACE(each.name);
    onVolume([&] {
      const Mount disk = Mount::ext4Image(root_ / "image", root_.makeDirectory("disk"), 32);
      ASSERT_TRUE(disk.mounted());
      const std::string source = root_ / each.source + "/tree";
      const std::string copy = root_ / each.destination + "/copy";
      buildTree(source);
      const auto before = snapshotTree(source, kEverything);
      const auto workingDirectory = std::filesystem::current_path();
      ASSERT_TRUE(refuseCalls(each.missing, each.answer));
      ASSERT_EQ(copyTree(source, copy), 0);
      EXPECT_EQ(difference(before, snapshotTree(copy, kEverything)), "");
      EXPECT_EQ(difference(before, snapshotTree(source, kEverything)), "");
      EXPECT_EQ(std::filesystem::current_path(), workingDirectory);
    });
  }
}

// Every kind of item as the top, into a directory that gives what is created in it a group, ACLs
// and, with the mask, a mode.
TEST_F(TreeCopyTest, TakesNothingFromTheDirectoryOfTheCopy) {
  onVolume([&] {
    buildTree(tree_);
    const std::string parent = root_.makeDirectory("m/parent");
    must(chown(parent.c_str(), 0, 4321) == 0 && chmod(parent.c_str(), 02777) == 0);
    setAttribute(parent, "system.posix_acl_default", accessList(7));
    std::vector<std::string> names{""};
    for (const auto& entry : std::filesystem::directory_iterator(tree_))
      names.push_back(entry.path().filename());
    for (const mode_t mask : {022U, 0U, 0777U}) {
      umask(mask);
      for (const std::string& name : names) {
        const std::string source = tree_ + "/" + name;
        const std::string copy = parent + "/" + std::to_string(mask) + name.substr(0, 200);
        ASSERT_EQ(copyTree(source, copy + "/"), 0) << mask << name;
        EXPECT_EQ(difference(snapshotTree(source, kEverything), snapshotTree(copy, kEverything)),
                  "");
      }
    }
  });
}

TEST_F(TreeCopyTest, RefusesAndLeavesTheSourceWhole) {
  const struct {
    const char* name;
    const char* source;
    const char* destination;
    int expected;
  } cases[] = {
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
      {"less than the size says", "/sys/kernel/mm/transparent_hugepage/enabled", "m/huge", EBUSY}};
  onVolume([&] {
    const Mount small = Mount::tmpfs(root_.makeDirectory("small"), "size=256k");
    const Mount few = Mount::tmpfs(root_.makeDirectory("few"), "nr_inodes=10");
    must(mount("plain", root_.makeDirectory("plain").c_str(), "ramfs", 0, nullptr) == 0);
    buildTree(tree_);
    root_.makeFile("m/file", "in the way");
    root_.makeFile("m/directory/file", "in the way");
    root_.makeLink("m/link", "elsewhere");
    const Mount inside = Mount::tmpfs(root_.makeDirectory("m/holder/mounted"));
    const Mount bound = Mount::bind(root_ / "m/directory", root_.makeDirectory("m/binder/bound"));
    const auto tree = snapshotTree(tree_, {.ignoreDirectoryTimes = true});
    for (const auto& each : cases) {
      SCOPED_TRACE(each.name);
      const std::string source = *each.source == '/' ? each.source : root_ / each.source;
      const std::string destination = root_ / each.destination;
      if (*each.source == '/' && !exists(source)) continue;
      const auto inTheWay = snapshotTree(destination);
      EXPECT_EQ(copyTree(source, destination), each.expected);
      if (each.expected == EEXIST) {
        EXPECT_EQ(difference(inTheWay, snapshotTree(destination)), "");
      }
      if (each.expected == EINVAL) std::filesystem::remove_all(destination);
      EXPECT_EQ(difference(tree, snapshotTree(tree_, {.ignoreDirectoryTimes = true})), "");
    }
    EXPECT_FALSE(exists(root_ / "elsewhere"));
    umount((root_ / "plain").c_str());
  });
}

TEST_F(TreeCopyTest, FailsWithWhateverCallFails) {
  const std::vector<long> kinds[] = {
      {SYS_openat, SYS_statx, SYS_mkdirat, SYS_getdents64, SYS_close},
      {SYS_read, SYS_pread64, SYS_pwrite64, SYS_lseek, SYS_ftruncate, SYS_copy_file_range},
      {SYS_fchown, SYS_fchownat, SYS_fchmod, SYS_utimensat},
      {SYS_linkat, SYS_symlinkat, SYS_readlinkat, SYS_mknodat},
      {SYS_flistxattr, SYS_fgetxattr, SYS_fsetxattr, SYS_fremovexattr},
      {452, 463, 464, 465}};  // modes and attributes by name
  for (const auto& kind : kinds) {
    for (const long number : kind) {
      SCOPED_TRACE(number);
      onVolume([&] {
        buildTree(tree_);
        // What a new item inherited is what is taken away from it.
        if (number == SYS_fremovexattr)
          setAttribute(root_ / "m", "system.posix_acl_default", accessList(7));
        // Only without offloading are large files read.
        ASSERT_TRUE(number != SYS_pread64 || refuseCalls({SYS_copy_file_range}, EXDEV));
        ASSERT_TRUE(refuseCalls({number}, EIO));
        EXPECT_EQ(copyTree(tree_, copy_), EIO);
      });
    }
  }
}

// Each level has a name of 200 bytes, so the paths are far beyond what a system call takes.
TEST_F(TreeCopyTest, CopiesDeepTreesWithFewDescriptorsAndLittleStack) {
  constexpr int kDepth = 100000;
  onVolume([&] {
    const std::string name(200, 'd');
    root_.makeDirectory("m/tree");
    int linked = -1;
    int directory = open(tree_.c_str(), O_RDONLY | O_CLOEXEC);
    const auto descend = [&] {
      const int next = openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC);
      close(directory);
      directory = next;
    };
    for (int depth = 0; depth < kDepth; ++depth) {
      // A second branch that is copied before or after the deep one, and links into both.
      if (depth == 40) {
        must(mkdirat(directory, "branch", 0750) == 0);
        linked = openat(directory, "branch", O_PATH | O_CLOEXEC);
        must(mknodat(linked, "linked", S_IFREG | 0640, 0) == 0);
      }
      if (depth == kDepth - 1) {
        must(mkdirat(directory, "branch", 0750) == 0 &&
             linkat(linked, "linked", directory, "branch/linked", 0) == 0);
      }
      must(mkdirat(directory, name.c_str(), 0711) == 0);
      descend();
    }
    close(directory);
    close(linked);
    const rlimit limit{64, 64};
    const rlimit stack{rlim_t{256} << 10, rlim_t{256} << 10};
    must(setrlimit(RLIMIT_NOFILE, &limit) == 0 && setrlimit(RLIMIT_STACK, &stack) == 0);
    ASSERT_EQ(copyTree(tree_, copy_), 0);

    std::vector<ino_t> inodes;
    directory = open(copy_.c_str(), O_RDONLY | O_CLOEXEC);
    for (int depth = 0; depth < kDepth; ++depth) {
      struct stat status {};
      if (fstatat(directory, "branch/linked", &status, 0) == 0) inodes.push_back(status.st_ino);
      descend();
      ASSERT_TRUE(directory >= 0 && fstat(directory, &status) == 0) << depth;
      ASSERT_EQ(status.st_mode & 07777U, 0711U) << depth;
    }
    close(directory);
    ASSERT_EQ(inodes.size(), 2U);
    EXPECT_EQ(inodes[0], inodes[1]);
  });
}

TEST_F(TreeCopyTest, FailsWhenWhatItCopiesChangesMeanwhile) {
  const std::string large = root_.makeFile("file", std::string(32 << 20, 'x'));
  for (int i = 0; i < 1000; ++i) root_.makeFile("directory/" + std::to_string(i));
  const std::pair<const char*, std::function<void(int)>> cases[] = {
      {"file", [&](int) { writeAt(large, "y", 5); }},
      {"directory", [&](int round) { root_.makeFile("directory/+" + std::to_string(round)); }}};
  for (const auto& [source, change] : cases) {
    std::atomic<int> changes = 0;
    const std::jthread writer([&, make = change](const std::stop_token& stop) {
      while (!stop.stop_requested()) make(changes++);
    });
    while (changes < 2) std::this_thread::yield();
    EXPECT_EQ(copyTree(root_ / source, root_ / "copy of " + source), EBUSY) << source;
  }
}

TEST_F(TreeCopyTest, SyncsTheVolumeOfAnyItem) {
  onVolume([&] {
    root_.makeLink("m/link", "/nowhere");
    must(mkfifo((root_ / "m/fifo").c_str(), 0600) == 0);
    const auto sync = [&](const char* name) {
      return TreeCopy::system().syncVolume((root_ / name).c_str()) == 0 ? 0 : errno;
    };
    EXPECT_EQ(sync("m/none"), ENOENT);
    for (const int number : {0, EIO}) {
      ASSERT_TRUE(number == 0 || refuseCalls({SYS_syncfs}, number));
      for (const char* name : {"m", "m/link", "m/fifo"}) EXPECT_EQ(sync(name), number) << name;
    }
  });
}

}  // namespace
}  // namespace pallion::test
