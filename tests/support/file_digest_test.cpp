#include "support/file_digest.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/helpers/mounts.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/refused_calls.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

namespace {

using Lines = std::vector<std::string>;

std::optional<std::string> digest(const std::string& path) {
  return PLCreateSHA256Digest(URL::fileURL(path));
}

Lines failure(const std::string& path, const std::string& reader, const std::string& reason) {
  return {"3 _ReadFile: " + reader,
          "3 PLCreateSHA256Digest: Failed to read file://" + path + " : " + reason};
}

}  // namespace

TEST(FileDigest, OfWholeFiles) {
  const TemporaryRoot root;
  const RecordedProductLog log;
  constexpr char kOfNothing[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
  const std::pair<std::string, std::string> rows[] = {
      {"", kOfNothing},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {std::string(65537, 'a'), "008ffc88d3c96a9f307524eb361e47c5222a887fc45fa0c1fb8d429c5c23b430"},
      {std::string(1000000, 'a'),
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"}};
  for (const auto& [content, expected] : rows)
    EXPECT_EQ(digest(root.makeFile("f", content)), expected) << content.size();
  // Over the length at the opening, like a file that grows meanwhile.
  EXPECT_EQ(digest("/proc/version"), kOfNothing);
  EXPECT_TRUE(log.lines.empty());
}

TEST(FileDigest, FailsForWhatCannotBeReadWhole) {
  if (!canMount()) GTEST_SKIP() << "refusing calls is done in a mount namespace";
  const TemporaryRoot root;
  const std::string file = root.makeFile("f", std::string(70000, 'a'));
  const std::string none = root / "none";
  const std::string fifo = root / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  constexpr int kNone = -1;
  const struct {
    std::string path;
    std::string reader;
    std::string reason;
    int ofRead = kNone;  // what reading answers
  } rows[] = {{none, "failed to open " + none + " : ", "No such file or directory"},
              {root.path(), "read failed for " + root.path() + " : ", "Is a directory"},
              {"/proc/sys", "read failed for /proc/sys : ", "Is a directory"},  // of size 0
              {fifo, "read failed for " + fifo + " : ", "Invalid argument"},
              {file, "read failed for " + file + " : ", "Input/output error", EIO},
              // Like a file that became shorter.
              {file, "read failed for " + file + ", got 0 bytes", "Input/output error", 0}};
  for (const auto& row : rows) {
    EXPECT_TRUE(runInMountNamespace([&row] {
      const int next = dup(0);
      close(next);
      if (row.ofRead != kNone) {
        ASSERT_TRUE(refuseCalls({SYS_read}, row.ofRead));
      }
      const RecordedProductLog log;
      EXPECT_EQ(digest(row.path), std::nullopt);
      EXPECT_EQ(log.lines,
                failure(row.path, row.reader + (row.reader.ends_with(' ') ? row.reason : ""),
                        row.reason));
      EXPECT_EQ(dup(0), next) << "a descriptor is left";
    })) << row.reader;
  }
}

}  // namespace pallion::test
