#include <cmath>
#include <csignal>
#include <fcntl.h>
#include <regex>

#include "platform/text_escape.h"
#include "programs/migration_host/progress_moment.h"
#include "programs/migration_host/progress_text.h"
#include "tests/programs/program_process.h"

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
  } steps[] = {{0, NAN, 0, 0, -1, 20, kNone},       {0.5, 0.04, 0, 0, 0.04, 19.5, kNone},
               {0.5, 0.25, 0, 0, 0.25, 1.5, kNone}, {4, 0.5, 8000, 2, 0.5, 4, 1574},
               {4, 0.5, 8000, 2, 0.5, 4, 1574},     {8, 0.4, 8000, 4, 0.5, 8, kNone},
               {9, INFINITY, 8000, 4, 1, 0, kNone}, {10, -INFINITY, 9000, 4, 1, 0, 496.5}};
  ProgressTracker tracker;
  for (const auto& step : steps) {
    SCOPED_TRACE(step.seconds);
    const ProgressMoment moment =
        tracker.next({step.told, 20, step.seconds, step.bytes, step.finished, 0});
    EXPECT_EQ(moment.progress, step.progress);
    EXPECT_DOUBLE_EQ(moment.secondsLeft.value_or(kNone), step.left);
    EXPECT_NEAR(moment.bytesPerSecond.value_or(kNone), step.bytesPerSecond, 1);
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

bool isMigrating(const TemporaryRoot& root) {
  return waitUntil([&] { return readAll(root / "calls").ends_with("performMigration\n"); });
}

TEST(MigrationHostProgress, IsABarThatFollowsTheTerminal) {
  const TemporaryRoot root;
  ChildProcess::Setup setup =
      setupFor(root,
               "perform\nstart com.\\x1b[2J /a\nstep data\nprogress 0.5\npause 500\nprogress 0.25\n"
               "pause 500\nfinish true\nprogress 7\npause 300\n",
               {"--progress=auto"});
  setup.terminalColumns = 80;
  setup.environment.insert(setup.environment.end(), {"TERM=xterm", "NO_COLOR=1"});
  ChildProcess host(setup);
  ASSERT_TRUE(isMigrating(root));
  usleep(300000);
  host.resizeTerminal(30);
  const ProcessOutcome outcome = host.wait();
  EXPECT_EQ(outcome.status, 0);
  const Words drawn = drawings(outcome.err);
  for (const char* begin : {"[################-----------------]  50%  0.0 apps/s  00:0",
                            "50% com.\\x1B[2J: data", "100% 1 done"}) {
    EXPECT_TRUE(std::any_of(drawn.begin(), drawn.end(),
                            [&](const std::string& rows) { return rows.starts_with(begin); }))
        << begin << outcome.err;
  }
  EXPECT_EQ(outcome.err.find("25%"), std::string::npos) << outcome.err;
}

TEST(MigrationHostProgress, TakesTheFormThatSuitsStandardError) {
  const struct {
    const char* name;
    unsigned short columns;
    const char* terminal;
    Words arguments;
    size_t lines;
  } cases[] = {{"no terminal", 0, "TERM=xterm", {"--progress=auto"}, 3},
               {"bar without a terminal", 0, "TERM=xterm", {"--progress=bar"}, 2},
               {"dumb", 80, "TERM=dumb", {"--progress=bar"}, 2},
               {"lines", 80, "TERM=xterm", {"--progress=lines"}, 2},
               {"none", 80, "TERM=xterm", {"--progress=none"}, 0},
               {"quiet", 80, "TERM=xterm", {"--progress=auto", "-q"}, 0}};
  for (const auto& c : cases) {
    const TemporaryRoot root;
    const std::string pause = c.lines == 3 ? "5300\n" : "150\n";
    ChildProcess::Setup setup =
        setupFor(root, "perform\nprogress 0.5\npause " + pause, c.arguments);
    setup.terminalColumns = c.columns;
    setup.environment.insert(setup.environment.end(), c.terminal);
    const std::string told = runProcess(setup).err;
    EXPECT_EQ(lines(told).size(), c.lines) << c.name;
    EXPECT_TRUE(std::regex_match(
        told, std::regex("(migration-host: [05]+%, 0 done, [^\r\n\x1b]* left\r*\n)*")))
        << c.name << told;
  }
}

TEST(MigrationHostProgress, IsToldWheneverASignalAsks) {
  const TemporaryRoot root;
  const std::string script = "perform\nstart com.a /a\nprogress 0.5\npause 1500\nfinish true\n";
  ChildProcess host(setupFor(root, script, {"-q", "--json"}));
  ASSERT_TRUE(isMigrating(root));
  for (int i = 0; i < 2; ++i) {
    usleep(300000);
    host.signal(SIGUSR1);
  }
  const ProcessOutcome outcome = host.wait();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(std::regex_match(outcome.err,
                               std::regex("(migration-host: 50%, 0 done, .* left, com\\.a\n){2}")))
      << outcome.err;
}

TEST(MigrationHostProgress, GoesToAStatusDescriptorUntilNobodyReads) {
  const std::string script =
      "perform\nstart com.a /a\nprogress 0.5\npause 300\nprogress 0.1\npause 200\nprogress 1\n";
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
    std::vector<double> told;
    for (const std::string& line : lines(text)) told.push_back(Json::parse(line).at("progress"));
    EXPECT_TRUE(told.size() >= 2 && std::is_sorted(told.begin(), told.end()) && told.back() == 1)
        << text;
  }
  for (const char* wrong : {"9", "-1", "x", "99999999999"}) {
    const TemporaryRoot root;
    EXPECT_EQ(run(root, "", {"--status-fd", wrong}).status, 2) << wrong;
    EXPECT_FALSE(exists(root / "calls")) << wrong;
  }
}

}  // namespace
}  // namespace pallion::test
