#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "file_operations/file_manager.h"
#include "platform/recursive_remove.h"
#include "platform/set_aside.h"
#include "platform/tree_copy.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/refused_calls.h"
#include "tests/helpers/temporary_root.h"
#include "tests/helpers/tree_snapshot.h"

namespace pallion::test {

namespace {

const PLFileManager& files = PLFileManager::defaultManager();

// Names in a directory that an interrupted or refused removal left set aside.
size_t countSetAside(const std::string& directory) {
  const auto items = files.urlsForItemsInDirectoryAtURL(
      URL::fileURL(directory, URL::Kind::kDirectory), false, nullptr);
  size_t count = 0;
  for (const URL& item : *items) count += isSetAsideName(item.lastPathComponent()) ? 1U : 0U;
  return count;
}

}  // namespace

TEST(CopyAndMove, TreatMissingSourcesByTheirForm) {
  TemporaryRoot root;
  const URL none = URL::fileURL(root / "none");
  const URL target = URL::fileURL(root / "target");
  const URL below = URL::fileURL(root.makeFile("file") + "/below");
  const std::string fromTo = none.absoluteString() + " to " + target.absoluteString();
  struct Row {
    bool (PLFileManager::*operation)(const URL&, const URL&, Error*) const;
    const URL& source;
    int code;
    std::string description;
  };
  const std::string statFailed = "stat of " + below.absoluteString() + " failed: Not a directory";
  const Row rows[] = {
      {&PLFileManager::copyItemIfExistsAtURL, none, 0, ""},
      {&PLFileManager::moveItemIfExistsAtURL, none, 0, ""},
      {&PLFileManager::copyItemAtURL, none, ENOENT,
       "copyfile of " + fromTo + " failed: No such file or directory"},
      {&PLFileManager::moveItemAtURL, none, ENOENT,
       "rename of " + fromTo + " failed: No such file or directory"},
      {&PLFileManager::copyItemIfExistsAtURL, below, ENOTDIR, statFailed},
      {&PLFileManager::moveItemIfExistsAtURL, below, ENOTDIR, statFailed},
  };
  for (const Row& row : rows) {
    Error error;
    EXPECT_EQ((files.*row.operation)(row.source, target, &error), row.code == 0);
    EXPECT_EQ(error.code(), row.code);
    EXPECT_EQ(error.localizedDescription(), row.description);
    EXPECT_FALSE(exists(root / "target"));
  }
}

TEST(CopyAndMove, KeepTreesOnOneVolume) {
  TemporaryRoot root;
  root.makeFile("from/a/b", "text");
  const TreeSnapshot before = snapshotTree(root / "from");
  const URL from = URL::fileURL(root / "from");
  ASSERT_TRUE(files.copyItemAtURL(from, URL::fileURL(root / "copy"), nullptr));
  ASSERT_TRUE(files.moveItemAtURL(from, URL::fileURL(root / "moved"), nullptr));
  for (const char* name : {"copy", "moved"}) {
    EXPECT_EQ(difference(before, snapshotTree(root / name)), "") << name;
  }
  EXPECT_FALSE(exists(root / "from"));
}

TEST(CopyAndMove, AcrossVolumesTheCopyIsDurableBeforeTheSourceGoes) {
  if (!canMount()) GTEST_SKIP() << "mounting is not permitted here";
  TemporaryRoot root;
  root.makeDirectory("other");
  ASSERT_TRUE(runInMountNamespace([&] {
    const Mount volume = Mount::tmpfs(root / "other", "size=16m");
    ASSERT_TRUE(volume.mounted());
    // What happens in which order, and what fails where.
    class Watching : public TreeCopy {
     public:
      int copy(const char* source, const char* destination) override {
        calls += "copy ";
        if (failCopy) return errno = ENOSPC, -1;
        return system().copy(source, destination);
      }
      int syncVolume(const char* path) override { return system().syncVolume(path); }
      int syncCopies(const char* path) override {
        calls += "sync ";
        if (failSync) return errno = EIO, -1;
        return system().syncCopies(path);
      }
      std::string calls;
      bool failCopy = false;
      bool failSync = false;
    } watching;
    class WatchingRemove : public RecursiveRemove {
     public:
      explicit WatchingRemove(Watching& watched) : watched_(watched) {}
      int remove(const char* path, RemovalState& state) override {
        watched_.calls += "remove ";
        if (fail) return errno = EPERM, -1;
        return system().remove(path, state);
      }
      bool fail = false;

     private:
      Watching& watched_;
    } watchingRemove(watching);
    TreeCopy::replace(&watching);
    RecursiveRemove::replace(&watchingRemove);

    const URL from = URL::fileURL(root / "from", URL::Kind::kDirectory);
    const URL destination = URL::fileURL(root / "other/to", URL::Kind::kDirectory);
    struct Row {
      bool failCopy;
      bool failSync;
      bool failRemove;
      int code;
      const char* calls;
      bool sourceStays;
      size_t setAside;
      size_t logLines;
    };
    const Row rows[] = {{false, false, false, 0, "copy sync remove ", false, 0, 0},
                        {true, false, false, ENOSPC, "copy ", true, 0, 0},
                        {false, true, false, EIO, "copy sync ", true, 0, 0},
                        {false, false, true, 0, "copy sync remove ", false, 1, 1}};
    for (const Row& row : rows) {
      RecordedProductLog log;
      RecursiveRemove::replace(nullptr);
      files.removeItemAtURL(destination, nullptr);
      RecursiveRemove::replace(&watchingRemove);
      root.makeFile("from/a/b", "text");
      const TreeSnapshot before = snapshotTree(root / "from");
      watching.calls.clear();
      watching.failCopy = row.failCopy;
      watching.failSync = row.failSync;
      watchingRemove.fail = row.failRemove;
      Error error;
      EXPECT_EQ(files.moveItemAtURL(from, destination, &error), row.code == 0);
      EXPECT_EQ(error.code(), row.code);
      if (row.code != 0) {
        EXPECT_EQ(error.localizedDescription(), "copyfile of " + from.absoluteString() + " to " +
                                                    destination.absoluteString() +
                                                    " failed: " + std::strerror(row.code));
      } else {
        EXPECT_EQ(difference(before, snapshotTree(root / "other/to")), "");
      }
      EXPECT_EQ(watching.calls, row.calls);
      EXPECT_EQ(exists(root / "from"), row.sourceStays);
      EXPECT_EQ(countSetAside(root.path()), row.setAside);
      ASSERT_EQ(log.lines.size(), row.logLines);
      if (row.logLines != 0) {
        EXPECT_TRUE(log.lines[0].starts_with(
            "3 -[PLFileManager _moveItemAtURL:toURL:failIfSrcMissing:error:]: Failed to "
            "remove move source after copy at " +
            (root / "from/") + " : POSIX 1: removefile of "))
            << log.lines[0];
      }
    }
    TreeCopy::replace(nullptr);
    RecursiveRemove::replace(nullptr);
  }));
}

TEST(CopyAndMove, ASourceThatCannotBeSetAsideStaysWhole) {
  if (!canMount()) GTEST_SKIP() << "refusing calls needs root";
  const TemporaryRoot root;
  root.makeFile("from", "text");
  EXPECT_TRUE(runInMountNamespace([&] {
    ASSERT_TRUE(refuseCalls({SYS_rename, SYS_renameat2}, EXDEV));
    RecordedProductLog log;
    EXPECT_TRUE(
        files.moveItemAtURL(URL::fileURL(root / "from"), URL::fileURL(root / "to"), nullptr));
    EXPECT_EQ(readAll(root / "to"), "text");
    EXPECT_EQ(readAll(root / "from"), "text");
    ASSERT_EQ(log.lines.size(), 1U);
    EXPECT_NE(log.lines[0].find("setting aside file://" + (root / "from") + " failed"),
              std::string::npos)
        << log.lines[0];
  }));
}

TEST(StoreMetadata, GoesItemByItem) {
  const char* kNames[] = {"Manifest.plist", "BriscaArtwork", "BriscaMetadata.plist", "GeoJSON"};
  const char* kKeys[] = {"ManifestCaptureFailed", "BriscaArtworkCaptureFailed",
                         "BriscaMetadataCaptureFailed", "GeoJSONCaptureFailed"};
  constexpr size_t kFailing = 2;
  for (const auto& [copy, fatal] : {std::pair(true, true), {true, false}, {false, true}}) {
    const TemporaryRoot root;
    const URL from = URL::fileURL(root.makeDirectory("from"), URL::Kind::kDirectory);
    const URL to = URL::fileURL(root.makeDirectory("to"), URL::Kind::kDirectory);
    EXPECT_TRUE(files.captureStoreDataFromDirectory(from, to, copy, true, nullptr));
    for (const char* name : kNames) root.makeFile(std::string("from/") + name, name);
    // A directory in the way makes both copy and move of a file fail.
    root.makeFile(std::string("to/") + kNames[kFailing] + "/x");
    RecordedProductLog log;
    Error record;
    EXPECT_EQ(files.captureStoreDataFromDirectory(from, to, copy, fatal, &record), !fatal);
    for (size_t i = 0; i < 4; ++i) {
      const bool carried = i != kFailing && (!fatal || i < kFailing);
      EXPECT_EQ(exists(root / (std::string("to/") + kNames[i])), carried || i == kFailing);
      EXPECT_EQ(exists(root / (std::string("from/") + kNames[i])), copy || !carried);
    }
    ASSERT_EQ(log.lines.size(), 1U);
    EXPECT_NE(log.lines[0].find(copy ? ": Failed to copy file://" : ": Failed to move file://"),
              std::string::npos);
    EXPECT_EQ(bool{record}, fatal);
    if (!fatal) continue;
    EXPECT_EQ(record.code(), 24);
    EXPECT_TRUE(record.underlyingError().isPOSIX(copy ? EEXIST : EISDIR)) << description(record);
    EXPECT_EQ(std::get<Value>(*record.details().find("LegacyErrorString")),
              Value::string(kKeys[kFailing]));
  }
}

}  // namespace pallion::test
