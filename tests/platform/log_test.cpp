#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "platform/log_file.h"
#include "platform/log_line.h"
#include "platform/migration_log.h"
#include "platform/product_log.h"
#include "platform/text_escape.h"
#include "tests/helpers/temporary_root.h"

namespace pallion {

// An object that notes how often its description was asked for.
struct CountedObject {
  mutable int descriptions = 0;
};

inline void appendDescription(std::string& out, const CountedObject& object) {
  ++object.descriptions;
  out += "object";
}

namespace {

using test::exists;
using test::readAll;
using test::TemporaryRoot;

TEST(LogLine, IsTheSameByteForByteWhateverTheMessageHolds) {
  struct Case {
    std::string_view message;
    const char* text;
    const char* json;
  };
  using namespace std::string_view_literals;
  const Case cases[] = {
      {"plain", "plain", R"(plain)"},
      {"a\nb\r\t\x1b[2J\0\x7f."sv, R"(a\x0Ab\x0D\x09\x1B[2J\x00\x7F.)",
       "a\\nb\\u000D\\u0009\\u001B[2J\\u0000\x7f."},
      {R"(quote " and \ and \x41)", R"(quote " and \ and \x41)", R"(quote \" and \\ and \\x41)"},
      {"Gr\xC3\xB6\xC3\x9F"
       "e \xE2\x82\xAC \xF0\x9F\x98\x80",
       "Gr\xC3\xB6\xC3\x9F"
       "e \xE2\x82\xAC \xF0\x9F\x98\x80",
       "Gr\xC3\xB6\xC3\x9F"
       "e \xE2\x82\xAC \xF0\x9F\x98\x80"},
      // Not UTF-8: a lone byte, a cut sequence, a long form, a surrogate, beyond the last
      // character.
      {"\xFF", "\xFF", R"(\\xFF)"},
      {"\xE2\x82", "\xE2\x82", R"(\\xE2\\x82)"},
      {"\xC0\xAF", "\xC0\xAF", R"(\\xC0\\xAF)"},
      {"\xE0\x80\xAF", "\xE0\x80\xAF", R"(\\xE0\\x80\\xAF)"},
      {"\xED\xA0\x80", "\xED\xA0\x80", R"(\\xED\\xA0\\x80)"},
      {"\xF4\x90\x80\x80", "\xF4\x90\x80\x80", R"(\\xF4\\x90\\x80\\x80)"},
  };
  // 2026-11-22T21:00:00Z
  const timespec time = {1795381200, 123456789};
  for (const Case& c : cases) {
    const LogLine host = {
        time, 3, "Shiftweller", "AppMigrator/run.cpp", 12, "-[PLAppMigrator run]", c.message};
    const LogLine product = {time, 5, nullptr, nullptr, 0, "-[PLFileManager a:b:]", c.message};
    EXPECT_EQ(formatLogLine(LogFormat::kText, host),
              "2026-11-22T21:00:00.123456Z [3] Shiftweller -[PLAppMigrator run] "
              "(AppMigrator/run.cpp:12): " +
                  std::string(c.text) + "\n");
    EXPECT_EQ(
        formatLogLine(LogFormat::kText, product),
        "2026-11-22T21:00:00.123456Z [5] -[PLFileManager a:b:]: " + std::string(c.text) + "\n");
    EXPECT_EQ(
        formatLogLine(LogFormat::kJSON, host),
        R"({"time":"2026-11-22T21:00:00.123456Z","log":"host","level":3,"category":"Shiftweller",)"
        R"("file":"AppMigrator/run.cpp","function":"-[PLAppMigrator run]","line":12,"message":")" +
            std::string(c.json) + "\"}\n");
    EXPECT_EQ(formatLogLine(LogFormat::kJSON, product),
              R"({"time":"2026-11-22T21:00:00.123456Z","log":"product","level":5,"file":null,)"
              R"("function":"-[PLFileManager a:b:]","line":null,"message":")" +
                  std::string(c.json) + "\"}\n");
  }
}

TEST(TextEscape, LeavesATerminalNothingToObey) {
  EXPECT_EQ(terminalText("a\x1b]0;x\x07 \xC2\x9B"
                         "31m \xC2\xA0 \xC3\xA9 \xFF"),
            "a\\x1B]0;x\\x07 \\xC2\\x9B"
            "31m \xC2\xA0 \xC3\xA9 \\xFF");
}

TEST(LogFile, IsMadeWithTheFirstLineAndAppendedTo) {
  const TemporaryRoot root;
  const std::string path = root / "Library/Logs/log";
  for (const char* line : {"one\n", "two\n"}) {
    LogFile log(path);
    EXPECT_EQ(exists(root / "Library"), line[0] == 't');
    EXPECT_EQ(log.write(line), 0);
  }
  EXPECT_EQ(readAll(path), "one\ntwo\n");
}

TEST(LogFile, IsSetAsideBySizeWithoutLosingALine) {
  const TemporaryRoot root;
  const std::string path = root / "log";
  LogFile log(path, 25);
  // Ten bytes a line, so two a file.
  for (int i = 10; i < 24; ++i) ASSERT_EQ(log.write("line  " + std::to_string(i) + ".\n"), 0);
  const auto file = [](int first) {
    return "line  " + std::to_string(first) + ".\nline  " + std::to_string(first + 1) + ".\n";
  };
  EXPECT_EQ(readAll(path), file(22));
  EXPECT_EQ(readAll(path + ".1"), file(20));
  EXPECT_EQ(readAll(path + ".4"), file(14));
  EXPECT_FALSE(exists(path + ".5"));
}

TEST(LogFile, GoesOnWhereItIsWhenItCannotBeSetAside) {
  const TemporaryRoot root;
  for (const char* way : {"log.1/in", "log.2/the", "log.3/way", "log.4/all"}) root.makeFile(way);
  LogFile log(root / "log", 25);
  std::string all;
  for (int i = 0; i < 9; ++i) {
    all += "line....\n";
    ASSERT_EQ(log.write("line....\n"), 0);
  }
  EXPECT_EQ(readAll(root / "log"), all);
}

TEST(LogFile, RefusesWhatIsNoRegularFileWithoutFollowingOrWaiting) {
  const TemporaryRoot root;
  const std::string victim = root.makeFile("victim", "mine\n");
  root.makeLink("link/log", victim);
  root.makeLink("dangling/log", root / "made");
  root.makeDirectory("directory/log");
  root.makeDirectory("fifo");
  ASSERT_EQ(mkfifo((root / "fifo/log").c_str(), 0600), 0);
  root.makeFile("file");
  const struct {
    const char* path;
    int error;
  } cases[] = {{"link/log", ELOOP},
               {"dangling/log", ELOOP},
               {"directory/log", EISDIR},
               {"fifo/log", ENXIO},
               {"file/log", ENOTDIR}};
  for (const auto& c : cases) {
    LogFile log(root / c.path);
    EXPECT_EQ(log.write("line\n"), c.error) << c.path;
    EXPECT_EQ(log.write("line\n"), c.error) << c.path;
  }
  EXPECT_EQ(readAll(victim), "mine\n");
  EXPECT_FALSE(exists(root / "made"));
}

TEST(LogFile, WritesALineInOneCallBehindWhatOthersWrote) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  LogFile packets(ends[0]);
  const std::string line = std::string(5000, 'x') + "\n";
  char received[8192];
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(packets.write(line), 0);
    EXPECT_EQ(recv(ends[1], received, sizeof received, 0), static_cast<ssize_t>(line.size()));
  }
  for (const int end : ends) close(end);

  const TemporaryRoot root;
  LogFile first(root / "log");
  LogFile second(root / "log");
  for (LogFile* log : {&first, &second, &first})
    EXPECT_EQ(log->write(log == &first ? "1\n" : "22\n"), 0);
  EXPECT_EQ(readAll(root / "log"), "1\n22\n1\n");
}

class CountingHandle : public LogHandle {
 public:
  using LogHandle::LogHandle;
  void write(int level, std::string_view function, std::string_view message) override {
    lines += std::to_string(level) + std::string(function) + ":" + std::string(message) + ";";
  }
  std::string lines;
};

TEST(ProductLog, FormatsNothingThatTheLevelFiltersOut) {
  const struct {
    int level;  // of the handle; 0 for none
    std::string lines;
    int descriptions;
  } cases[] = {{2, "", 0},
               {3, "3f:object;", 1},
               {4, "3f:object;", 1},
               {5, "3f:object;5f:object;", 2},
               {7, "3f:object;5f:object;7f:object;", 3},
               {0, "", 2}};
  for (const auto& c : cases) {
    const CountedObject object;
    CountingHandle handle(c.level);
    if (c.level != 0) gLogHandle = &handle;
    testing::internal::CaptureStderr();
    for (const int level : {3, 5, 7}) LogWrite(level, "f", "%@", object);
    const std::string printed = testing::internal::GetCapturedStderr();
    gLogHandle = nullptr;
    EXPECT_EQ(handle.lines, c.lines) << c.level;
    EXPECT_EQ(object.descriptions, c.descriptions) << c.level;
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), c.level == 0 ? 2 : 0) << printed;
  }
}

class CountingSink : public MigrationLogSink {
 public:
  [[nodiscard]] int level() const override { return 3; }
  void write(const MigrationLogRecord& record) override {
    lines += std::string(record.file) + " " + record.function + " " + record.category + " " +
             std::string(record.message) + ";";
    line = record.line;
  }
  std::string lines;
  int line = 0;
};

TEST(MigrationLog, FormatsNothingThatTheSinkDoesNotWantAndNamesThePlace) {
  const CountedObject object;
  CountingSink sink;
  MigrationLogSink* const before = MigrationLogSink::replace(&sink);
  MigrationLog("f", "Shiftweller", 5, "%@", object);
  EXPECT_EQ(object.descriptions, 0);
  MigrationLog("f", "Shiftweller", 3, "%@ %d", object, 4);
  const int line = __LINE__ - 1;
  EXPECT_EQ(MigrationLogSink::replace(nullptr), &sink);
  EXPECT_EQ(sink.lines, std::string(__FILE__) + " f Shiftweller object 4;");
  EXPECT_EQ(sink.line, line);
  EXPECT_EQ(&MigrationLogSink::current(), before);

  testing::internal::CaptureStderr();
  MigrationLog("-[A b]", "Shiftweller", 5, "to stderr");
  const std::string printed = testing::internal::GetCapturedStderr();
  EXPECT_NE(printed.find("Z [5] Shiftweller -[A b] ("), std::string::npos) << printed;
  EXPECT_TRUE(printed.ends_with("): to stderr\n")) << printed;
}

}  // namespace
}  // namespace pallion
