#include "support/file_digest.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

namespace {

using Lines = std::vector<std::string>;

std::optional<std::string> digest(const std::string& path) {
  return PLCreateSHA256Digest(URL::fileURL(path));
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
  const TemporaryRoot root;
  const std::string fifo = root / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::tuple<std::string, std::string, std::string> rows[] = {
      {root / "none", "failed to open @ : ", "No such file or directory"},
      {root.path(), "read failed for @ : ", "Is a directory"},
      {"/proc/sys", "read failed for @ : ", "Is a directory"},  // of size 0
      {fifo, "read failed for @ : ", "Invalid argument"},
      // Its size is that of a page, but there is no speed to read.
      {"/sys/class/net/lo/speed", "read failed for @ : ", "Invalid argument"},
      // Likewise, and it has less, as a file has that becomes shorter.
      {"/sys/devices/system/cpu/online", "read failed for @, got 0 bytes", "Input/output error"}};
  for (const auto& [path, text, reason] : rows) {
    if (path.starts_with("/sys") && !exists(path)) continue;
    const int next = dup(0);
    close(next);
    const RecordedProductLog log;
    EXPECT_EQ(digest(path), std::nullopt);
    std::string reader = "3 _ReadFile: " + text + (text.ends_with(' ') ? reason : "");
    reader.replace(reader.find('@'), 1, path);
    EXPECT_EQ(log.lines, (Lines{reader, "3 PLCreateSHA256Digest: Failed to read file://" + path +
                                            " : " + reason}));
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, next) << "a descriptor is left";
  }
}

}  // namespace pallion::test
