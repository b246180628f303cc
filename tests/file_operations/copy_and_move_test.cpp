#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/syscall.h>

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

// The calls of a move in their order, one of which fails.
struct Calls {
  bool fails(const std::string& call, int number) {
    made += call + " ";
    if (call == failing) errno = number;
    return call == failing;
  }
  std::string failing;
  std::string made{};
};

class WatchedCopy : public TreeCopy {
 public:
  explicit WatchedCopy(Calls& calls) : calls_(calls) { replace(this); }
  ~WatchedCopy() override { replace(nullptr); }
  int copy(const char* source, const char* destination) override {
    return calls_.fails("copy", ENOSPC) ? -1 : system().copy(source, destination);
  }
  int syncVolume(const char* path) override { return system().syncVolume(path); }
  int syncCopies(const char* path) override {
    return calls_.fails("sync", EIO) ? -1 : system().syncCopies(path);
  }

 private:
  Calls& calls_;
};

class WatchedRemove : public RecursiveRemove {
 public:
  explicit WatchedRemove(Calls& calls) : calls_(calls) { replace(this); }
  ~WatchedRemove() override { replace(nullptr); }
  int remove(const char* path, RemovalState& state) override {
    return calls_.fails("remove", EPERM) ? -1 : system().remove(path, state);
  }

 private:
  Calls& calls_;
};

}  // namespace

TEST(CopyAndMove, TreatMissingSourcesByTheirForm) {
  TemporaryRoot root;
  const URL none = URL::fileURL(root / "none");
  const URL target = URL::fileURL(root / "target");
  const URL below = URL::fileURL(root.makeFile("file") + "/below");
  const std::string statFailed =
      "POSIX 20: stat of " + below.absoluteString() + " failed: Not a directory";
  const std::string failed = " of " + none.absoluteString() + " to " + target.absoluteString() +
                             " failed: No such file or directory";
  using Files = PLFileManager;
  const struct {
    bool (PLFileManager::*operation)(const URL&, const URL&, Error*) const;
    const URL& source;
    std::string error;
  } rows[] = {{&Files::copyItemIfExistsAtURL, none, ""},
              {&Files::moveItemIfExistsAtURL, none, ""},
              {&Files::copyItemAtURL, none, "POSIX 2: copyfile" + failed},
              {&Files::moveItemAtURL, none, "POSIX 2: rename" + failed},
              {&Files::copyItemIfExistsAtURL, below, statFailed},
              {&Files::moveItemIfExistsAtURL, below, statFailed}};
  for (const auto& row : rows) {
    Error error;
    EXPECT_EQ((files.*row.operation)(row.source, target, &error), row.error.empty());
    EXPECT_EQ(error ? description(error) : "", row.error);
    EXPECT_FALSE(exists(root / "target"));
  }
}

TEST(CopyAndMove, AcrossVolumesTheCopyIsDurableBeforeTheSourceGoes) {
  if (!canMount()) GTEST_SKIP() << "mounting is not permitted here";
  TemporaryRoot root;
  const URL from = URL::fileURL(root / "from", URL::Kind::kDirectory);
  const URL to = URL::fileURL(root.makeDirectory("other") + "/to", URL::Kind::kDirectory);
  const std::string copyFailed =
      ": copyfile of " + from.absoluteString() + " to " + to.absoluteString() + " failed: ";
  const struct {
    const char* failing;
    const char* calls;
    std::string error;
    std::string line;  // the beginning of the line in the log
  } rows[] = {
      {"", "copy sync remove ", "", ""},
      {"copy", "copy ", "POSIX 28" + copyFailed + "No space left on device", ""},
      {"sync", "copy sync ", "POSIX 5" + copyFailed + "Input/output error", ""},
      {"remove", "copy sync remove ", "",
       "3 -[PLFileManager _moveItemAtURL:toURL:failIfSrcMissing:error:]: Failed to remove move "
       "source after copy at " +
           (root / "from/") + " : POSIX 1: removefile of "},
  };
  EXPECT_TRUE(runInMountNamespace([&] {
    const Mount volume = Mount::tmpfs(root / "other", "size=16m");
    ASSERT_TRUE(volume.mounted());
    for (const auto& row : rows) {
      SCOPED_TRACE(row.failing);
      std::filesystem::remove_all(root / "other/to");
      root.makeFile("from/a/b", "text");
      const TreeSnapshot before = snapshotTree(root / "from");
      Calls calls{row.failing};
      const WatchedCopy copy(calls);
      const WatchedRemove remove(calls);
      const RecordedProductLog log;
      Error error;
      const bool moved = files.moveItemAtURL(from, to, &error);
      EXPECT_EQ(moved, row.error.empty());
      EXPECT_EQ(error ? description(error) : "", row.error);
      EXPECT_EQ(calls.made, row.calls);
      EXPECT_EQ(difference(before, snapshotTree(root / (moved ? "other/to" : "from"))), "");
      EXPECT_EQ(exists(root / "from"), !moved);
      size_t setAside = 0;
      for (const auto& item : std::filesystem::directory_iterator(root.path()))
        setAside += isSetAsideName(item.path().filename().string());
      EXPECT_EQ(setAside, row.line.empty() ? 0U : 1U);
      ASSERT_EQ(log.lines.size(), setAside);
      EXPECT_TRUE(log.lines.empty() || log.lines[0].starts_with(row.line)) << log.lines[0];
    }
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
