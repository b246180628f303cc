#include "foundation/file_contents.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "foundation/property_list.h"
#include "foundation/volume_order.h"
#include "tests/helpers/child_process.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/refused_calls.h"
#include "tests/helpers/temporary_root.h"

namespace pallion {
namespace {

using test::refuseCalls;
using test::TemporaryRoot;

size_t entriesIn(const std::string& directory) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

int errorOfReading(const std::string& path, uint64_t maximumSize = 1 << 20) {
  int error = 0;
  return readFile(URL::fileURL(path), &error, FileCache::kUse, maximumSize) ? 0 : error;
}

TEST(ReadFile, ReadsRegularFilesOnly) {
  const TemporaryRoot root;
  const std::string file = root.makeFile("file", "content");
  root.makeLink("link", "file");
  ASSERT_EQ(0, mkfifo((root / "fifo").c_str(), 0600));
  ASSERT_EQ(0, mknod((root / "socket").c_str(), S_IFSOCK | 0600, 0));
  EXPECT_EQ("content", readFile(URL::fileURL(file), nullptr, FileCache::kBypass));
  EXPECT_EQ("", readFile(URL::fileURL(root.makeFile("empty"))));
  const std::string full(4096, 'x');
  EXPECT_EQ(full, readFile(URL::fileURL(root.makeFile("full", full))));
  // Smaller and larger than fstat says, like files that change between the calls.
  EXPECT_EQ("0",
            readFile(URL::fileURL("/sys/devices/system/cpu/online")).value_or("").substr(0, 1));
  EXPECT_GT(readFile(URL::fileURL("/proc/self/maps")).value_or("").size(), 4096U);
  const std::pair<std::string, int> kCases[] = {
      {root / "link", ELOOP},    {root.path(), EISDIR},         {root / "fifo", EINVAL},
      {root / "socket", EINVAL}, {"/dev/null", EINVAL},         {root / "missing", ENOENT},
      {"relative", ENOENT},      {root / "file/below", ENOTDIR}};
  for (const auto& [path, error] : kCases) EXPECT_EQ(error, errorOfReading(path)) << path;
  EXPECT_EQ(0, errorOfReading(file, 7));
  EXPECT_EQ(EFBIG, errorOfReading(file, 6));
  EXPECT_EQ(EFBIG, errorOfReading("/proc/self/maps", 100));
}

// In every way in which a file system lets a file be made.
void inEveryWay(const std::function<void(const TemporaryRoot&)>& body) {
  const struct {
    const char* name;
    std::initializer_list<long> refused;
    int error;
    test::CallsWith which;
  } ways[] = {{"unnamed", {}, 0, {}},
              {"through /proc", {SYS_linkat}, ENOENT, {4, AT_EMPTY_PATH}},
              {"named", {SYS_openat}, EOPNOTSUPP, {2, O_TMPFILE & ~O_DIRECTORY}}};
  for (const auto& way : ways) {
    const TemporaryRoot root;
    EXPECT_TRUE(test::runInChild([&] {
      ASSERT_TRUE(test::refuseCalls(way.refused, way.error, way.which));
      body(root);
    })) << way.name;
  }
}

int write(const std::string& path, std::string_view bytes, mode_t mode = 0644) {
  return writeFileAtomically(URL::fileURL(path), bytes, Durability::kSynced, mode);
}

TEST(WriteFileAtomically, MakesAndReplaces) {
  inEveryWay([](const TemporaryRoot& root) {
    const std::string file = root / "file";
    const auto mode = [&file] {
      struct stat status {};
      return stat(file.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    };
    umask(027);
    ASSERT_EQ(0, write(file, "first", 0666));
    EXPECT_EQ(0640U, mode());
    EXPECT_EQ("first", test::readAll(file));
    ASSERT_EQ(0, setxattr(file.c_str(), "user.mark", "1", 1, 0));
    const std::string large(3000000, 'y');
    ASSERT_EQ(0, write(file, large, 0600));
    EXPECT_EQ(0600U, mode());
    EXPECT_EQ(large, test::readAll(file));
    EXPECT_EQ(-1, getxattr(file.c_str(), "user.mark", nullptr, 0));
    root.makeLink("link", "file");
    const std::string longest(255, 'n');
    for (const std::string& name : {std::string("link"), longest, longest})
      ASSERT_EQ(0, write(root / name, "new"));
    EXPECT_FALSE(std::filesystem::is_symlink(root / "link"));
    EXPECT_EQ(large, test::readAll(file));
    EXPECT_EQ(3U, entriesIn(root.path()));
    // What an interrupted write has left is in nobody's way.
    const std::function<void()> kLeftOvers[] = {
        [&] { root.makeFile(".file.writing", "half"); },
        [&] { root.makeLink(".file.writing", "file"); },
        [&] { mkfifo((root / ".file.writing").c_str(), 0600); }};
    for (const auto& leave : kLeftOvers) {
      leave();
      ASSERT_EQ(0, write(file, "after"));
      EXPECT_EQ("after", test::readAll(file));
      EXPECT_EQ(3U, entriesIn(root.path()));
    }
  });
}

TEST(WriteFileAtomically, LeavesNothingWhereItFails) {
  inEveryWay([](const TemporaryRoot& root) {
    root.makeFile("file", "old");
    root.makeDirectory("directory");
    const std::pair<std::string, int> kCases[] = {{root / "directory", EISDIR},
                                                  {"/", EISDIR},
                                                  {root / "missing/file", ENOENT},
                                                  {root / "file/below", ENOTDIR},
                                                  {root / std::string(256, 'n'), ENAMETOOLONG},
                                                  {"relative", ENOENT}};
    for (const auto& [path, error] : kCases) EXPECT_EQ(error, write(path, "new")) << path;
    EXPECT_EQ(EILSEQ, writePropertyListFile(Value::array({Value()}), URL::fileURL(root / "file"),
                                            PropertyListFormat::kXML, Durability::kNotSynced));
    EXPECT_EQ(2U, entriesIn(root.path()));
    EXPECT_EQ("old", test::readAll(root / "file"));
  });
}

// The rest of a write that the medium took in part, and what follows it, fail.
TEST(WriteFileAtomically, LeavesTheOldFileWhereTheNewOneDoesNotFit) {
  inEveryWay([](const TemporaryRoot& root) {
    root.makeFile("file", "old");
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {4000, 4000};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    const UniqueDescriptor directory(open(root.path().c_str(), O_PATH | O_DIRECTORY));
    const std::string large(5000, 'n');
    for (const char* name : {"file", "other"}) {
      EXPECT_EQ(EFBIG, write(root / name, large)) << name;
      EXPECT_EQ(EFBIG,
                writeFileAtomicallyAt(directory.get(), name, large, Durability::kSynced, 0644))
          << name;
    }
    EXPECT_EQ(1U, entriesIn(root.path()));
    EXPECT_EQ("old", test::readAll(root / "file"));
  });
}

TEST(WriteFileAtomically, PutsTheContentBeforeTheName) {
  using Calls = std::initializer_list<long>;
  const struct {
    const char* what;
    Calls refused;
    Durability durability;
    int error;
  } cases[] = {
      {"synced", {SYS_fdatasync}, Durability::kSynced, EIO},
      {"synced, not ordered", {SYS_sync_file_range, SYS_fstatfs}, Durability::kSynced, 0},
      {"ordered", {SYS_sync_file_range}, Durability::kOrdered, EIO},
      {"ordered, not synced", {SYS_fdatasync}, Durability::kOrdered, 0},
      {"ordered where nothing keeps order",
       {SYS_fstatfs, SYS_fdatasync},
       Durability::kOrdered,
       EIO},
      {"neither", {SYS_fdatasync, SYS_sync_file_range}, Durability::kNotSynced, 0},
  };
  if (!test::canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  const auto inOwnDirectory = [](const URL& url, std::string_view bytes, Durability, mode_t mode) {
    VolumeOrder volume;
    return writeFileInOwnDirectory(url, bytes, volume, mode);
  };
  for (const auto& write : {writeFileAtomically, +inOwnDirectory}) {
    for (const auto& c : cases) {
      if (write == +inOwnDirectory && c.durability != Durability::kOrdered) continue;
      SCOPED_TRACE(c.what);
      const TemporaryRoot root;
      EXPECT_TRUE(test::runInMountNamespace([&] {
        const test::Mount memory = test::Mount::tmpfs(root.path());  // keeps order
        root.makeFile("old", "old");
        ASSERT_TRUE(refuseCalls(c.refused, EIO));
        for (const char* name : {"old", "new"})
          EXPECT_EQ(c.error, write(URL::fileURL(root / name), "n", c.durability, 0644));
        EXPECT_EQ(c.error == 0 ? 2U : 1U, entriesIn(root.path()));
      }));
    }
  }
}

// Three processes write, this one reads: each content is a run of one letter whose length belongs
// to the letter.
TEST(WriteFileAtomically, WritersAndReadersNeverMeet) {
  inEveryWay([](const TemporaryRoot& root) {
    const URL url = URL::fileURL(root.makeFile("file", "a"));
    constexpr int kWriters = 3;
    for (int w = 0; w < kWriters; ++w) {
      if (fork() != 0) continue;
      int error = 0;
      for (int i = 0; i < 300 && error == 0; ++i) {
        const int letter = (i + w) % 26;
        const std::string bytes(static_cast<size_t>(letter) * 4000 + 1,
                                static_cast<char>('a' + letter));
        error = writeFileAtomically(url, bytes, Durability::kNotSynced);
      }
      _exit(error);
    }
    for (int running = kWriters; running > 0;) {
      const auto bytes = readFile(url);
      ASSERT_TRUE(bytes);
      const auto letter = static_cast<size_t>(bytes->front() - 'a');
      ASSERT_EQ(letter * 4000 + 1, bytes->size());
      ASSERT_EQ(std::string::npos, bytes->find_first_not_of(bytes->front()));
      int status = 0;
      if (waitpid(-1, &status, WNOHANG) <= 0) continue;
      EXPECT_EQ(0, status);
      --running;
    }
    EXPECT_EQ(1U, entriesIn(root.path()));
  });
}

TEST(PropertyListFile, TellsWhatIsWrong) {
  const TemporaryRoot root;
  root.makeFile("list", "<plist><array/></plist>");
  for (const auto& [name, number] : {std::pair{"list", EILSEQ}, {"missing", ENOENT}}) {
    int error = 0;
    EXPECT_FALSE(readDictionaryFile(URL::fileURL(root / name), &error));
    EXPECT_EQ(number, error);
  }
}

}  // namespace
}  // namespace pallion
