#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "file_operations/error_makers.h"
#include "file_operations/file_manager.h"
#include "foundation/unique_descriptor.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/refused_calls.h"
#include "tests/helpers/temporary_root.h"
#include "tests/helpers/tree_snapshot.h"

namespace pallion::test {

namespace {

constexpr uid_t kUser = 4321;
constexpr gid_t kGroup = 8765;
const PLFileManager& files = PLFileManager::defaultManager();
const std::string kLog =
    "3 -[PLFileManager standardizeOwnershipAtURL:toUID:GID:validateSymlinks:error:]: ";

struct stat statusOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return status;
}

bool hasNewOwner(const std::string& path) {
  const struct stat status = statusOf(path);
  return status.st_uid == kUser && status.st_gid == kGroup;
}

mode_t modeOf(const std::string& path) { return statusOf(path).st_mode & 07777; }

bool standardize(const std::string& path, bool validateSymlinks, Error* error = nullptr) {
  return files.standardizeOwnershipAtURL(URL::fileURL(path), kUser, kGroup, validateSymlinks,
                                         error);
}

class Ownership : public testing::Test {
 protected:
  void SetUp() override {
    if (!isRoot()) GTEST_SKIP() << "giving items to others needs root";
  }
  TemporaryRoot root_;
  RecordedProductLog log_;
};

}  // namespace

TEST_F(Ownership, IsGivenWithTheStandardModes) {
  const struct {
    std::string name;  // a directory's ends in "/"
    mode_t before;
    mode_t after;
  } rows[] = {{"t/", 0700, 0755},      {"t/set-group/", 02755, 0755}, {"t/sticky/", 01777, 0755},
              {"t/closed/", 0, 0755},  {"t/program", 0755, 0644},     {"t/set-user", 04755, 0644},
              {"t/sticky/f", 0, 0644}, {"t/closed/right", 0644, 0644}};
  for (const auto& row : rows) {
    row.name.ends_with('/') ? root_.makeDirectory(row.name) : root_.makeFile(row.name);
    ASSERT_EQ(chmod((root_ / row.name).c_str(), row.before), 0);
  }
  ASSERT_EQ(mkfifo((root_ / "t/fifo").c_str(), 0600), 0);
  ASSERT_EQ(lchown((root_ / "t/program").c_str(), kUser, 0), 0);
  ASSERT_EQ(lchown((root_ / "t/set-user").c_str(), 0, kGroup), 0);
  ASSERT_EQ(chmod((root_ / "t/set-user").c_str(), 04755), 0);  // the new owner took the bit
  const std::string outside = root_.makeFile("outside");
  ASSERT_EQ(chmod(outside.c_str(), 0600), 0);
  const std::string link = root_.makeLink("t/link", outside);

  EXPECT_TRUE(standardize(root_ / "t", false));
  for (const auto& row : rows) {
    EXPECT_EQ(modeOf(root_ / row.name), row.after) << row.name;
    EXPECT_TRUE(hasNewOwner(root_ / row.name)) << row.name;
  }
  EXPECT_EQ(modeOf(root_ / "t/fifo"), 0644U);
  EXPECT_TRUE(hasNewOwner(link));
  EXPECT_FALSE(hasNewOwner(outside));
  EXPECT_EQ(modeOf(outside), 0600U);

  // Everything is right now, so nothing is touched any more. (Change times advance every 10 ms.)
  const TreeSnapshot before = snapshotTree(root_ / "t", {.changeTimes = true});
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_TRUE(standardize(root_ / "t", false));
  EXPECT_EQ(difference(before, snapshotTree(root_ / "t", {.changeTimes = true})), "");
  EXPECT_TRUE(log_.lines.empty());
}

TEST_F(Ownership, StopsAtALinkThatLeadsOut) {
  const std::pair<const char*, bool> rows[] = {
      {"../item", true}, {"none", true}, {"../../outside", false}, {"/etc/passwd", false}};
  for (const auto& [text, valid] : rows) {
    SCOPED_TRACE(text);
    const TemporaryRoot root;
    root.makeFile("t/item");
    const std::string link = root.makeLink("t/sub/link", text);
    log_.lines.clear();
    Error error;
    EXPECT_EQ(standardize(root / "t", true, &error), valid);
    EXPECT_TRUE(hasNewOwner(link));
    if (valid) continue;
    EXPECT_EQ(error.code(), 70);
    EXPECT_EQ(error.localizedDescription(), "invalid symlink at " + link);
    // One rejection and one record.
    ASSERT_EQ(log_.lines.size(), 2U);
    EXPECT_TRUE(log_.lines[1].starts_with(kLog)) << log_.lines[1];
    EXPECT_TRUE(standardize(root / "t", false));
  }
}

TEST_F(Ownership, IsNotGivenOnOtherVolumes) {
  if (!canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  root_.makeDirectory("t/volume");
  EXPECT_TRUE(runInMountNamespace([&] {
    const Mount volume = Mount::tmpfs(root_ / "t/volume", "mode=700");
    ASSERT_TRUE(volume.mounted());
    const std::string inner = root_.makeFile("t/volume/inner");
    EXPECT_TRUE(standardize(root_ / "t", false));
    EXPECT_TRUE(hasNewOwner(root_ / "t/volume"));
    EXPECT_FALSE(hasNewOwner(inner));
  }));
}

// Paths are far beyond what a call takes, and the walk comes back to directories whose descriptors
// were given up.
TEST_F(Ownership, IsGivenAtAnyDepth) {
  if (!canMount()) GTEST_SKIP() << "needs a tmpfs: other volumes take long to remove it";
  constexpr int kDepth = 20000;
  EXPECT_TRUE(runInMountNamespace([&] {
    const Mount memory = Mount::tmpfs(root_.makeDirectory("m"));
    const std::string top = root_.makeDirectory("m/t");
    const auto descend = [&](const std::function<void(int directory)>& visit) {
      UniqueDescriptor level(open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      for (int depth = 0; depth < kDepth && level; ++depth) {
        visit(level.get());
        level.reset(openat(level.get(), "directory", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      }
      ASSERT_TRUE(level);
    };
    descend([](int directory) {
      mknodat(directory, "before", S_IFREG | 0600, 0);
      mkdirat(directory, "directory", 0700);
      mknodat(directory, "after", S_IFREG | 0600, 0);
    });
    const rlimit descriptors{256, 256};
    const rlimit stack{rlim_t{256} << 10, rlim_t{256} << 10};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &descriptors) + setrlimit(RLIMIT_STACK, &stack), 0);
    // On a thread of its own, whose stack is of that size.
    bool done = false;
    std::thread([&] { done = standardize(top, false); }).join();
    EXPECT_TRUE(done);
    int right = 0;
    descend([&](int directory) {
      for (const char* name : {"before", "directory", "after"}) {
        struct stat status {};
        right += fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                 status.st_uid == kUser && status.st_gid == kGroup;
      }
    });
    EXPECT_EQ(right, 3 * kDepth);
  }));
}

// What can't be read before it has its new mode is read after it.
TEST_F(Ownership, OpensDirectoriesToTheirOwner) {
  if (!canMount()) GTEST_SKIP() << "needs a process of its own";
  root_.makeFile("t/closed/f");
  ASSERT_EQ(chmod((root_ / "t/closed/f").c_str(), 0600), 0);
  for (const char* path : {"t", "t/closed", "t/closed/f"}) {
    ASSERT_EQ(chown((root_ / path).c_str(), kUser, kGroup), 0);
  }
  ASSERT_EQ(chmod((root_ / "t/closed").c_str(), 0) + chmod(root_.path().c_str(), 0755), 0);
  EXPECT_TRUE(runInMountNamespace([&] {
    ASSERT_EQ(setgid(kGroup) + setuid(kUser), 0);
    EXPECT_TRUE(standardize(root_ / "t", false));
    EXPECT_EQ(modeOf(root_ / "t/closed"), 0755U);
    EXPECT_EQ(modeOf(root_ / "t/closed/f"), 0644U);
  }));
}

TEST_F(Ownership, GoesOnAfterAChangeThatFailsButNotWithoutATree) {
  if (!canMount()) GTEST_SKIP() << "refusing calls is done in a mount namespace";
  Error error;
  EXPECT_FALSE(standardize(root_ / "none", true, &error));
  EXPECT_EQ(description(error),
            "POSIX 2: Error for path " + (root_ / "none") + ": No such file or directory");
  const std::string path = root_.makeDirectory("t");
  root_.makeFile("t/f");
  ASSERT_EQ(chmod((root_ / "t/f").c_str(), 0600) + chmod(path.c_str(), 0700), 0);
  const std::string refused = ": Operation not permitted";
  EXPECT_TRUE(runInMountNamespace([&] {
    constexpr long kFchmodat2 = 452;
    ASSERT_TRUE(
        refuseCalls({SYS_fchown, SYS_fchownat, SYS_fchmod, SYS_fchmodat, kFchmodat2}, EPERM));
    EXPECT_TRUE(standardize(path, false));
    std::vector<std::string> expected;
    for (const std::string& item : {path, path + "/f"}) {
      expected.push_back(kLog + "Could not chown " + item + refused);
      expected.push_back(kLog + "Could not chmod " + item + refused);
    }
    EXPECT_EQ(log_.lines, expected);
  }));
}

}  // namespace pallion::test
