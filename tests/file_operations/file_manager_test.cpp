#include "file_operations/file_manager.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/protection_class.h"
#include "platform/recursive_remove.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

namespace {

const PLFileManager& files = PLFileManager::defaultManager();

// Domain, code and description; empty for none.
std::string textOf(const Error& error) { return error ? description(error) : ""; }

mode_t modeOf(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

}  // namespace

TEST(FileManager, ExistenceIsOfTheItemItself) {
  TemporaryRoot root;
  RecordedProductLog log;
  const std::string longName(300, 'n');
  const struct {
    std::string path;
    bool exists;
    bool doesNotExist;
  } rows[] = {{root.makeFile("file"), true, false},
              {root.makeLink("dangling", "/nowhere"), true, false},
              {root / "none", false, true},
              {std::string(root / "file") + std::string(1, '\0') + "x", false, true},
              {root / "file/below", false, false},  // ENOTDIR
              {root / longName, false, false}};     // ENAMETOOLONG
  for (const auto& row : rows) {
    EXPECT_EQ(files.itemExistsAtURL(URL::fileURL(row.path)), row.exists) << row.path;
    EXPECT_EQ(files.itemDoesNotExistAtURL(URL::fileURL(row.path)), row.doesNotExist) << row.path;
  }
  ASSERT_EQ(log.lines.size(), 4U);
  EXPECT_EQ(log.lines[0], "3 -[PLFileManager itemExistsAtURL:]: Failed to determine if file://" +
                              (root / "file/below") + " exists: Not a directory");
}

TEST(FileManager, ListsOneLevel) {
  TemporaryRoot root;
  RecordedProductLog log;
  const std::string directory = root.makeDirectory("d");
  root.makeFile("d/sub/inner");
  root.makeLink("d/link", "sub");
  root.makeFile("d/not \xFF utf-8");
  for (const bool ignoringSymlinks : {false, true}) {
    std::set<std::string> found;
    const auto items =
        files.urlsForItemsInDirectoryAtURL(URL::fileURL(directory), ignoringSymlinks, nullptr);
    for (const URL& url : *items) {
      found.insert(url.path().substr(directory.size() + 1));
    }
    std::set<std::string> expected{"sub/", "not \xFF utf-8"};
    if (!ignoringSymlinks) expected.insert("link");
    EXPECT_EQ(found, expected);
  }
  EXPECT_EQ(log.lines,
            std::vector<std::string>{
                "5 -[PLFileManager urlsForItemsInDirectoryAtURL:ignoringSymlinks:error:]: Ignoring "
                "symlink at " +
                directory + "/link"});

  const std::pair<std::string, std::string> failures[] = {
      {root.makeLink("to-d", "d"), "POSIX 20: _IterateDirectory for @ returned Not a directory"},
      {root / "none", "POSIX 2: _IterateDirectory for @ returned No such file or directory"}};
  for (auto [path, text] : failures) {
    Error error;
    EXPECT_FALSE(files.urlsForItemsInDirectoryAtURL(URL::fileURL(path, URL::Kind::kDirectory),
                                                    false, &error));
    EXPECT_EQ(textOf(error), text.replace(text.find('@'), 1, path));
  }
}

TEST(FileManager, RemovesTreesAndReportsTheFirstFailure) {
  TemporaryRoot root;
  RecordedProductLog log;
  Error error;
  EXPECT_FALSE(files.removeItemAtURL(nullptr, &error));
  EXPECT_EQ(textOf(error), "POSIX 14: nil url passed to -removeItemAtURL:error:");

  // What the walk hears of single items, how it ends itself, and what comes of it.
  const struct {
    std::vector<int> heard;
    int errorNumber;
    int expected;
    size_t lines;
  } rows[] = {{{}, 0, 0, 0},
              {{EPERM, EBUSY}, EPERM, EPERM, 2},
              {{EBUSY, EPERM}, 0, EBUSY, 2},
              {{ENOENT, EPERM}, 0, 0, 1},
              {{}, EIO, EIO, 0},
              {{EPERM}, ENOENT, EPERM, 1}};
  class Scripted : public RecursiveRemove {
   public:
    int remove(const char*, RemovalState& state) override {
      for (const int number : heard) EXPECT_TRUE(state.report("/item", number));
      errno = errorNumber;
      return errorNumber == 0 ? 0 : -1;
    }
    std::vector<int> heard;
    int errorNumber = 0;
  } scripted;
  RecursiveRemove::replace(&scripted);
  for (const auto& row : rows) {
    scripted.heard = row.heard;
    scripted.errorNumber = row.errorNumber;
    log.lines.clear();
    Error record;
    EXPECT_EQ(files.removeItemAtURL(URL::fileURL("/x"), &record), row.expected == 0);
    EXPECT_EQ(textOf(record), row.expected == 0 ? ""
                                                : "POSIX " + std::to_string(row.expected) +
                                                      ": removefile of file:///x failed: " +
                                                      std::strerror(row.expected));
    EXPECT_EQ(log.lines.size(), row.lines);
  }
  RecursiveRemove::replace(nullptr);

  root.makeFile("tree/a/b/c");
  root.makeLink("tree/a/out", "/etc");
  EXPECT_TRUE(files.removeItemAtURL(URL::fileURL(root / "tree/"), nullptr));
  EXPECT_FALSE(exists(root / "tree"));
}

TEST(FileManager, MakesDirectories) {
  TemporaryRoot root;
  const mode_t mask = umask(022);
  const std::string existing = root.makeDirectory("existing");
  chmod(existing.c_str(), 0700);
  const std::string file = root.makeFile("file");
  const struct {
    std::string path;
    bool intermediates;
    int protectionClass;
    std::string error;
  } rows[] = {
      {root / "a/b/c", true, -1, ""},
      {root / "a/b/c", true, 4, ""},
      {existing, false, -1, ""},
      {file, true, -1, ""},
      {file, true, 4, "POSIX 20: opendir of " + file + "/ failed: Not a directory"},
      {root / "x/y", false, -1,
       "POSIX 2: mkdir of " + (root / "x/y") + "/ failed: No such file or directory"},
      {file + "/y/z", true, -1, "POSIX 20: mkpath_np of " + file + "/y/z/ failed: Not a directory"},
  };
  for (const auto& row : rows) {
    const URL url = URL::fileURL(row.path, URL::Kind::kDirectory);
    Error error;
    EXPECT_EQ(files.createDirectoryAtURL(url, row.intermediates, 0755, row.protectionClass, &error),
              row.error.empty());
    EXPECT_EQ(textOf(error), row.error);
    int32_t read = row.protectionClass;
    if (row.error.empty() && read != -1) {
      EXPECT_TRUE(files.dataProtectionClassOfItemAtURL(url, read, nullptr));
    }
    EXPECT_EQ(read, row.protectionClass);
  }
  EXPECT_EQ(modeOf(root / "a/b"), 0755U);
  EXPECT_EQ(modeOf(existing), 0700U);

  umask(mask);
}

TEST(FileManager, MakesTemporaryDirectories) {
  TemporaryRoot root;
  RecordedProductLog log;
  const auto first = files.createTemporaryDirectoryInDirectoryURL(root.url(), nullptr);
  const auto second = files.createTemporaryDirectoryInDirectoryURL(root.url(), nullptr);
  ASSERT_TRUE(first && second);
  EXPECT_FALSE(*first == *second);
  EXPECT_EQ(modeOf(first->fileSystemRepresentation()), 0700U);

  Error error;
  const URL none = URL::fileURL(root / "none", URL::Kind::kDirectory);
  EXPECT_FALSE(files.createTemporaryDirectoryInDirectoryURL(none, &error));
  EXPECT_EQ(error.domain(), "PLInstallerErrorDomain");
  EXPECT_EQ(error.code(), 4);
  EXPECT_TRUE(error.underlyingError().isPOSIX(ENOENT));
  EXPECT_TRUE(error.localizedDescription().starts_with("Failed to create temp dir at path " +
                                                       (root / "none/temp.")));
  EXPECT_EQ(log.lines.size(), 1U);
}

}  // namespace pallion::test
