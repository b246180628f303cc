#include <cmath>
#include <csignal>
#include <fcntl.h>
#include <regex>

#include "platform/text_escape.h"
#include "programs/migration_host/progress_moment.h"
#include "programs/migration_host/progress_text.h"
#include "tests/programs/host_process.h"

namespace pallion::test {
namespace {

using namespace pallion::host;

TEST(ProgressMoments, NeverGoBackAndKnowSpeedAndTime) {
  constexpr double kNone = -1;  // none is told
  const struct {
    double seconds, told;
    uint64_t bytes;
    size_t finished;
    double progress, left, bytesPerSecond;
  } steps[] = {{0, NAN, 0, 0, -1, 20, kNone},        {0.5, 0.25, 0, 0, 0.25, 19.5, kNone},
               {4, 0.5, 8000, 2, 0.5, 4, 1574},      {4, 0.5, 8000, 2, 0.5, 4, 1574},
               {8, 0.4, 8000, 4, 0.5, 8, kNone},     {9, INFINITY, 8000, 4, 1, 0, kNone},
               {10, -INFINITY, 9000, 4, 1, 0, 496.5}};
  ProgressTracker tracker;
  for (const auto& step : steps) {
    const ProgressMoment moment =
        tracker.next({step.told, 20, step.seconds, step.bytes, step.finished, 0});
    EXPECT_EQ(moment.progress, step.progress) << step.seconds;
    EXPECT_DOUBLE_EQ(moment.secondsLeft.value_or(kNone), step.left) << step.seconds;
    EXPECT_NEAR(moment.bytesPerSecond.value_or(kNone), step.bytesPerSecond, 1) << step.seconds;
    EXPECT_TRUE(moment.itemsPerSecond >= 0 && moment.itemsPerSecond < 1) << step.seconds;
  }
}

TEST(ProgressRows, FitIntoEveryTerminalWhateverTheNames) {
  ProgressMoment moment;
  moment.progress = 0.625;
  moment.secondsLeft = 7;
  moment.bytesPerSecond = 12.34e6;
  moment.sample = {0.625, 0, 3725, 99, 4, 1, "com.a", "data"};
  EXPECT_EQ(
      barRows(moment, 80, false),
      (Words{"[####################------------]  62%  12.3 MB/s  1:02:05 elapsed  00:07 left",
             "3 done, 1 failed  com.a: data"}));
  EXPECT_EQ(barRows(moment, 0, false), barRows(moment, 80, false)) << "an unknown width";
  EXPECT_EQ(statusText(moment),
            "62%, 3 done, 1 failed, 12.3 MB/s, 1:02:05 elapsed, 00:07 left, "
            "com.a: data");
  std::string wide;
  for (int i = 0; i < 100; ++i) wide += "\xE4\xB8\xAD";  // two columns each
  for (const std::string& name : {wide, "a\n\x1b[2J\xff\xc2\x9b" + std::string(200, 'x')}) {
    for (const double progress : {-1.0, 0.0, 0.999999, 1.0}) {
      for (const size_t columns : {1U, 2U, 7U, 20U, 50U, 51U, 52U, 60U, 80U, 200U}) {
        moment.sample.identifier = name;
        moment.progress = progress;
        const Words rows = barRows(moment, columns, false);
        EXPECT_EQ(rows.size(), columns == 1 ? 0U : columns <= 50 ? 1U : 2U) << columns;
        for (const std::string& row : rows) {
          size_t taken = 0;
          for (const char byte : row) taken += (byte & 0xC0) == 0x80 ? 0U : byte < 0 ? 2U : 1U;
          EXPECT_LT(taken, columns) << row;
          EXPECT_EQ(terminalText(row), row) << columns;
          EXPECT_TRUE(row.find("100%") == std::string::npos || progress == 1) << row;
        }
      }
    }
  }
  moment.secondsLeft.reset();
  moment.bytesPerSecond.reset();
  EXPECT_EQ(barRows(moment, 60, true).at(0),
            "[\x1b[32m###########\x1b[0m] 100%  0.0 apps/s  1:02:05 elapsed  --:-- left");
}

// What the terminal shows after each drawing, its rows joined with "|".
Words drawings(const std::string& bytes) {
  Words all;
  const std::regex drawing(
      "\\r([^\\r\\x1b]*)(?:\\x1b\\[K\\r+\\n([^\\r\\x1b]*))?\\x1b\\[J\\r(?:\\x1b\\[1A)?");
  for (std::sregex_iterator at(bytes.begin(), bytes.end(), drawing), end; at != end; ++at)
    all.push_back((*at)[1].str() + ((*at)[2].matched ? "|" + (*at)[2].str() : ""));
  EXPECT_EQ(std::regex_replace(bytes, drawing, ""), "\r\x1b[J") << "and all is cleared at the end";
  return all;
}

TEST(MigrationHostProgress, IsABarThatFollowsTheTerminal) {
  const TemporaryRoot root;
  ChildProcess::Setup setup =
      setupFor(root,
               "perform\nstart com.\\x1b[2J /a\nstep data\nprogress 0.5\npause 400\nprogress 0.25\n"
               "pause 800\nfinish true\nprogress 7\npause 300\n",
               {"--progress=auto"});
  setup.terminalColumns = 80;
  setup.environment.insert(setup.environment.end(), {"TERM=xterm", "NO_COLOR=1"});
  ChildProcess host(setup);
  usleep(700000);
  host.resizeTerminal(30);
  const ProcessOutcome outcome = host.wait();
  EXPECT_EQ(outcome.status, 0);
  const Words drawn = drawings(outcome.err);
  const auto has = [&](const std::string& text) {
    return std::any_of(drawn.begin(), drawn.end(),
                       [&](const std::string& rows) { return rows.find(text) == 0; });
  };
  EXPECT_TRUE(has("[################-----------------]  50%  0.0 apps/s  00:00 elapsed  00:2") &&
              has("50% com.\\x1B[2J: data") && has("100% 1 done"))
      << outcome.err;
  EXPECT_FALSE(has("25%")) << outcome.err;
}

TEST(MigrationHostProgress, TakesTheFormThatSuitsStandardError) {
  const struct {
    const char* name;
    unsigned short columns;
    Words environment;
    Words arguments;
    size_t lines;
  } cases[] = {{"no terminal", 0, {"TERM=xterm"}, {"--progress=auto"}, 3},
               {"bar without a terminal", 0, {"TERM=xterm"}, {"--progress=bar"}, 2},
               {"dumb", 80, {"TERM=dumb"}, {"--progress=bar"}, 2},
               {"lines", 80, {"TERM=xterm"}, {"--progress=lines"}, 2},
               {"none", 80, {"TERM=xterm"}, {"--progress=none"}, 0},
               {"quiet", 80, {"TERM=xterm"}, {"--progress=auto", "-q"}, 0}};
  for (const auto& c : cases) {
    const TemporaryRoot root;
    ChildProcess::Setup setup = setupFor(
        root, "perform\nprogress 0.5\npause " + std::string(c.lines == 3 ? "5300\n" : "150\n"),
        c.arguments);
    setup.terminalColumns = c.columns;
    setup.environment.insert(setup.environment.end(), c.environment.begin(), c.environment.end());
    const Words told = lines(runProcess(setup).err);
    EXPECT_EQ(told.size(), c.lines) << c.name;
    for (const std::string& line : told) {
      EXPECT_TRUE(std::regex_search(line, std::regex("^migration-host: [05]+%, 0 done, ")))
          << c.name << ": " << line;
    }
  }
}

TEST(MigrationHostProgress, IsToldWheneverASignalAsks) {
  for (const Words& arguments : {Words{"-q"}, Words{"--json"}}) {
    const TemporaryRoot root;
    ChildProcess host(setupFor(
        root, "perform\nstart com.a /a\nprogress 0.5\npause 600\nfinish true\n", arguments));
    ASSERT_TRUE(waitUntil([&] { return exists(root / "calls"); }));
    for (int i = 0; i < 2; ++i) {
      usleep(200000);
      host.signal(SIGUSR1);
    }
    const ProcessOutcome outcome = host.wait();
    EXPECT_EQ(outcome.status, 0);
    const Words told = lines(outcome.err);
    EXPECT_EQ(told.size(), 2U) << outcome.err;
    for (const std::string& line : told)
      EXPECT_TRUE(line.starts_with("migration-host: 50%, 0 done, ") && line.ends_with(", com.a"));
  }
}

TEST(MigrationHostProgress, GoesToAStatusDescriptorUntilNobodyReads) {
  const std::string script =
      "perform\nstart com.a\\x0a /a\nprogress 0.5\npause 300\nfinish false\nprogress 1\npause "
      "200\n";
  enum class Reader { kReads, kHasGone, kSleeps };
  for (const Reader reader : {Reader::kReads, Reader::kHasGone, Reader::kSleeps}) {
    const TemporaryRoot root;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    const std::string page(4096, 'x');
    while (reader == Reader::kSleeps && write(ends[1], page.data(), page.size()) > 0) continue;
    fcntl(ends[1], F_SETFL, 0);  // whoever writes into the full pipe would wait for ever
    if (reader == Reader::kHasGone) close(ends[0]);
    ChildProcess::Setup setup = setupFor(root, script, {"--status-fd", "3", "-q"});
    setup.third = ends[1];
    const ProcessOutcome outcome = runProcess(setup);
    close(ends[1]);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err + outcome.out, "");
    if (reader == Reader::kHasGone) continue;
    std::string text(1 << 20, ' ');
    text.resize(static_cast<size_t>(read(ends[0], text.data(), text.size())));
    close(ends[0]);
    if (reader == Reader::kSleeps) continue;
    Json last;
    double before = 0;
    for (const std::string& line : lines(text)) {
      last = Json::parse(line, nullptr, false);
      ASSERT_TRUE(last.is_object()) << line;
      EXPECT_GE(last.at("progress"), before);
      before = last.at("progress");
    }
    EXPECT_GE(lines(text).size(), 3U);
    EXPECT_EQ(last.at("progress"), 1);
    EXPECT_EQ(last.at("failed"), 1);
    EXPECT_NE(text.find(R"("identifier":"com.a\n")"), std::string::npos) << text;
  }
  for (const char* wrong : {"9", "-1", "x", "99999999999"}) {
    const TemporaryRoot root;
    EXPECT_EQ(run(root, "", {"--status-fd", wrong}).status, 2) << wrong;
    EXPECT_FALSE(exists(root / "calls")) << wrong;
  }
}

}  // namespace
}  // namespace pallion::test
