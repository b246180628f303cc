#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vector>

#include "platform/log_file.h"
#include "platform/log_line.h"
#include "platform/product_log.h"
#include "platform/text_escape.h"
#include "tests/helpers/recorded_logs.h"
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
  using namespace std::string_view_literals;
  const struct {
    std::string_view message;
    std::string text;
    std::string json;
  } cases[] = {{"a\nb\r\t\x1b[2J\0\x7f."sv, R"(a\x0Ab\x0D\x09\x1B[2J\x00\x7F.)",
                "a\\nb\\u000D\\u0009\\u001B[2J\\u0000\x7f."},
               {"\u00f6 \u20ac \U0001f600", "\u00f6 \u20ac \U0001f600", "\u00f6 \u20ac \U0001f600"},
               // Not UTF-8: a lone byte, a cut sequence, a long form, a surrogate, beyond the last
               // character.
               {"\xFF", "\xFF", R"(\\xFF)"},
               {"\xE2\x82", "\xE2\x82", R"(\\xE2\\x82)"},
               {"\xE0\x80\xAF", "\xE0\x80\xAF", R"(\\xE0\\x80\\xAF)"},
               {"\xED\xA0\x80", "\xED\xA0\x80", R"(\\xED\\xA0\\x80)"},
               {"\xF4\x90\x80\x80", "\xF4\x90\x80\x80", R"(\\xF4\\x90\\x80\\x80)"}};
  // 2026-11-22T21:00:00Z
  const timespec time = {1795381200, 123456789};
  const std::string clock = "2026-11-22T21:00:00.123456Z";
  for (const auto& c : cases) {
    const LogLine host = {time, 3, "Shiftweller", "a/run.cpp", 12, "-[A run]", c.message};
    const LogLine product = {time, 5, nullptr, nullptr, 0, "-[F a:b:]", c.message};
    EXPECT_EQ(formatLogLine(LogFormat::kText, host),
              clock + " [3] Shiftweller -[A run] (a/run.cpp:12): " + c.text + "\n");
    EXPECT_EQ(formatLogLine(LogFormat::kText, product), clock + " [5] -[F a:b:]: " + c.text + "\n");
    EXPECT_EQ(formatLogLine(LogFormat::kJSON, host),
              "{\"time\":\"" + clock +
                  R"(","log":"host","level":3,"category":"Shiftweller",)"
                  R"("file":"a/run.cpp","function":"-[A run]","line":12,"message":")" +
                  c.json + "\"}\n");
    EXPECT_EQ(formatLogLine(LogFormat::kJSON, product),
              "{\"time\":\"" + clock +
                  R"(","log":"product","level":5,"file":null,)"
                  R"("function":"-[F a:b:]","line":null,"message":")" +
                  c.json + "\"}\n");
  }
  // Nothing for a terminal to obey.
  EXPECT_EQ(terminalText("a\x1b]0;x\x07 \xC2\x9B-\xC2\xA0 \xC3\xA9 \xFF"),
            "a\\x1B]0;x\\x07 \\xC2\\x9B-\xC2\xA0 \xC3\xA9 \\xFF");
}

TEST(LogFile, IsSetAsideBySizeWithoutLosingALine) {
  const TemporaryRoot root;
  const std::string path = root / "made/log";
  LogFile log(path, 25);
  EXPECT_FALSE(exists(root / "made")) << "before the first line";
  // Ten bytes a line, so two a file.
  for (int i = 10; i < 24; ++i) ASSERT_EQ(log.write("line  " + std::to_string(i) + ".\n"), 0);
  EXPECT_EQ(readAll(path), "line  22.\nline  23.\n");
  EXPECT_EQ(readAll(path + ".1"), "line  20.\nline  21.\n");
  EXPECT_EQ(readAll(path + ".4"), "line  14.\nline  15.\n");
  EXPECT_FALSE(exists(path + ".5"));
  // Behind what others wrote.
  LogFile first(root / "shared");
  LogFile second(root / "shared");
  for (LogFile* each : {&first, &second, &first})
    EXPECT_EQ(each->write(each == &first ? "1\n" : "22\n"), 0);
  EXPECT_EQ(readAll(root / "shared"), "1\n22\n1\n");
  // It goes on where it is when it can't be set aside.
  for (const char* way : {"log.1/in", "log.2/the", "log.3/way", "log.4/all"}) root.makeFile(way);
  std::string all;
  LogFile stuck(root / "log", 25);
  for (int i = 0; i < 9; ++i, all += "line....\n") ASSERT_EQ(stuck.write("line....\n"), 0);
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
  const std::pair<const char*, int> cases[] = {{"link/log", ELOOP},
                                               {"dangling/log", ELOOP},
                                               {"directory/log", EISDIR},
                                               {"fifo/log", ENXIO},
                                               {"file/log", ENOTDIR}};
  for (const auto& [path, error] : cases) {
    LogFile log(root / path);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(log.write("line\n"), error) << path;
  }
  EXPECT_EQ(readAll(victim), "mine\n");
  EXPECT_FALSE(exists(root / "made"));
}

TEST(ProductLog, FormatsNothingThatTheLevelFiltersOut) {
  const struct {
    int level;  // of the handle; 0 for none
    std::vector<std::string> lines;
    int descriptions;
  } cases[] = {{2, {}, 0},
               {4, {"3 f: object"}, 1},
               {5, {"3 f: object", "5 f: object"}, 2},
               {7, {"3 f: object", "5 f: object", "7 f: object"}, 3},
               {0, {}, 2}};
  for (const auto& c : cases) {
    const CountedObject object;
    test::RecordedProductLog log(c.level);
    if (c.level == 0) gLogHandle = nullptr;
    testing::internal::CaptureStderr();
    for (const int level : {3, 5, 7}) LogWrite(level, "f", "%@", object);
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(log.lines, c.lines) << c.level;
    EXPECT_EQ(object.descriptions, c.descriptions) << c.level;
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), c.level == 0 ? 2 : 0) << printed;
  }
}

}  // namespace
}  // namespace pallion
