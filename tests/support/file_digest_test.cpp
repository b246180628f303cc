#include "support/file_digest.h"

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/helpers/mounts.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/refused_calls.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

namespace {

constexpr char kOfNothing[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

// Holds up every read of one file, calls `atFirstRead` before the first goes on, and counts them.
class ReadWatch {
 public:
  explicit ReadWatch(
      const std::string& path, std::function<void()> atFirstRead = [] {})
      : atFirstRead_(std::move(atFirstRead)),
        descriptor_(fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY | O_CLOEXEC)),
        watching_(descriptor_ >= 0 && pipe2(end_, O_CLOEXEC) == 0 &&
                  fanotify_mark(descriptor_, FAN_MARK_ADD, FAN_ACCESS_PERM, AT_FDCWD,
                                path.c_str()) == 0) {
    if (watching_) thread_ = std::thread([this] { run(); });
  }
  ReadWatch(const ReadWatch&) = delete;
  ReadWatch& operator=(const ReadWatch&) = delete;
  ~ReadWatch() {
    stop();
    if (descriptor_ >= 0) close(descriptor_);
  }
  [[nodiscard]] bool watching() const { return watching_; }
  int stop() {
    if (thread_.joinable()) {
      close(end_[1]);
      thread_.join();
      close(end_[0]);
    }
    return reads_;
  }

 private:
  void run() {
    pollfd ready[] = {{descriptor_, POLLIN, 0}, {end_[0], POLLIN, 0}};
    while (poll(ready, 2, -1) > 0 && ready[1].revents == 0) {
      fanotify_event_metadata event{};
      if (read(descriptor_, &event, sizeof event) != sizeof event) return;
      if (reads_++ == 0) atFirstRead_();
      const fanotify_response answer{event.fd, FAN_ALLOW};
      EXPECT_EQ(write(descriptor_, &answer, sizeof answer), ssize_t{sizeof answer});
      close(event.fd);
    }
  }

  std::function<void()> atFirstRead_;
  int descriptor_;
  int end_[2] = {-1, -1};
  bool watching_;
  int reads_ = 0;
  std::thread thread_;
};

void append(const std::string& path, size_t count) {
  const int file = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  EXPECT_EQ(write(file, std::string(count, 'z').data(), count), static_cast<ssize_t>(count));
  close(file);
}

std::optional<std::string> digest(const std::string& path) {
  return PLCreateSHA256Digest(URL::fileURL(path));
}

std::vector<std::string> failure(const std::string& path, const std::string& reader,
                                 const std::string& reason) {
  return {"3 _ReadFile: " + reader,
          "3 PLCreateSHA256Digest: Failed to read file://" + path + " : " + reason};
}

}  // namespace

TEST(FileDigest, OfWholeFilesInBoundedReads) {
  const TemporaryRoot root;
  const RecordedProductLog log;
  struct Row {
    std::string content;
    std::string digest;
    int reads;
  };
  const Row rows[] = {
      {"", kOfNothing, 0},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", 1},
      {std::string(65536, 'a'), "bf718b6f653bebc184e1479f1935b8da974d701b893afcf49e701f3e2f9f9c5a",
       1},
      {std::string(65537, 'a'), "008ffc88d3c96a9f307524eb361e47c5222a887fc45fa0c1fb8d429c5c23b430",
       2},
      {std::string(1000000, 'a'),
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0", 16}};
  for (const Row& row : rows) {
    const std::string path = root.makeFile("f", row.content);
    EXPECT_EQ(digest(path), row.digest) << row.content.size();
    ReadWatch watch(path);
    if (!watch.watching()) continue;  // needs CAP_SYS_ADMIN
    EXPECT_EQ(digest(path), row.digest) << row.content.size();
    EXPECT_EQ(watch.stop(), row.reads) << row.content.size();
  }
  EXPECT_TRUE(log.lines.empty());
}

TEST(FileDigest, OfFilesThatChangeMeanwhile) {
  const TemporaryRoot root;
  const std::string content(100000, 'a');
  const std::string stands = *digest(root.makeFile("stands", content));
  struct Row {
    const char* name;
    off_t cutTo;  // before the first read
    size_t appended;
    bool whole;
  };
  const Row rows[] = {
      {"grows", 100000, 7, true}, {"shrinks", 70000, 0, false}, {"empties", 0, 0, false}};
  for (const Row& row : rows) {
    const RecordedProductLog log;
    const std::string path = root.makeFile(row.name, content);
    ReadWatch watch(path, [&] {
      EXPECT_EQ(truncate(path.c_str(), row.cutTo), 0);
      append(path, row.appended);
    });
    if (!watch.watching()) GTEST_SKIP() << "holding reads up needs CAP_SYS_ADMIN";
    EXPECT_EQ(digest(path), row.whole ? std::optional(stands) : std::nullopt) << row.name;
    EXPECT_EQ(log.lines, row.whole ? std::vector<std::string>()
                                   : failure(path, "read failed for " + path + ", got 0 bytes",
                                             "Input/output error"));
  }
}

TEST(FileDigest, FailsForWhatIsNoReadableFile) {
  const TemporaryRoot root;
  const std::string none = root / "none";
  const std::string fifo = root / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::string directory = root.makeDirectory("d");
  struct Row {
    std::string path;
    std::string reader;
    std::string reason;
  };
  const Row rows[] = {{none, "failed to open " + none + " : ", "No such file or directory"},
                      {directory, "read failed for " + directory + " : ", "Is a directory"},
                      {"/proc/sys", "read failed for /proc/sys : ", "Is a directory"},  // of size 0
                      {fifo, "read failed for " + fifo + " : ", "Invalid argument"}};
  for (const Row& row : rows) {
    const RecordedProductLog log;
    EXPECT_EQ(digest(row.path), std::nullopt) << row.path;
    EXPECT_EQ(log.lines, failure(row.path, row.reader + row.reason, row.reason));
  }
}

TEST(FileDigest, LeavesNoDescriptorBehind) {
  if (!canMount()) GTEST_SKIP() << "refusing calls is done in a mount namespace";
  const TemporaryRoot root;
  const std::string path = root.makeFile("f", "content");
  EXPECT_TRUE(runInMountNamespace([&] {
    const RecordedProductLog log;
    const int next = dup(0);
    close(next);
    digest(path);
    digest(root.path());
    ASSERT_TRUE(refuseCalls({SYS_read}, EIO));
    EXPECT_EQ(digest(path), std::nullopt);
    EXPECT_EQ(log.lines.back(), failure(path, "", "Input/output error").back());
    EXPECT_EQ(log.lines[log.lines.size() - 2],
              "3 _ReadFile: read failed for " + path + " : Input/output error");
    const int after = dup(0);
    EXPECT_EQ(after, next);
  }));
}

}  // namespace pallion::test
