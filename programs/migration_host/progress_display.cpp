#include "programs/migration_host/progress_display.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

#include "platform/text_escape.h"
#include "programs/common/console.h"
#include "programs/common/text_table.h"

namespace pallion::host {

namespace {

constexpr auto kInterval = std::chrono::milliseconds(100);
constexpr size_t kBarWidth = 20;
// In a narrower row nothing is shown: "[bar] 100%" and one of the times fit into this one.
constexpr size_t kLeastColumns = 40;

size_t terminalColumns() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::string clockText(double seconds) {
  // A figure beyond any run only says that nothing is known.
  const long whole = static_cast<long>(std::clamp(seconds, 0.0, 359999.0));
  char text[64];
  if (whole >= 3600) {
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60, whole % 60);
  } else {
    std::snprintf(text, sizeof text, "%02ld:%02ld", whole / 60, whole % 60);
  }
  return text;
}

// The first characters of a UTF-8 text.
std::string firstCharacters(const std::string& text, size_t count) {
  size_t end = 0;
  while (end < text.size() && count-- > 0)
    end += std::max<size_t>(1, utf8SequenceLength(text.substr(end, 4)));
  return text.substr(0, end);
}

// "[######----]  62%  3 done  00:12 elapsed, 00:07 left  com.example.app" in less than `columns`
// characters. `progress` is negative when nothing is known.
std::string statusText(const RunReport::Moment& moment, double progress, double estimatedDuration,
                       size_t columns) {
  std::string text;
  double left = estimatedDuration - moment.seconds;
  if (progress >= 0) {
    const auto full = static_cast<size_t>(progress * static_cast<double>(kBarWidth));
    char percent[16];
    std::snprintf(percent, sizeof percent, "] %3d%%  ", static_cast<int>(progress * 100));
    text = "[" + std::string(full, '#') + std::string(kBarWidth - full, '-') + percent;
    if (progress > 0) left = moment.seconds * (1 - progress) / progress;
  }
  for (const std::string& part :
       {std::to_string(moment.finished) + " done  ",
        clockText(moment.seconds) + " elapsed, " + clockText(left) + " left  ",
        terminalText(moment.identifier)}) {
    text += part;
  }
  // A full row would make some terminals begin a new one.
  return firstCharacters(text, columns - 1);
}

}  // namespace

bool canShowProgress() {
  const char* const terminal = std::getenv("TERM");
  const char* const plain = std::getenv("NO_COLOR");
  return terminal && *terminal != '\0' && std::strcmp(terminal, "dumb") != 0 &&
         !(plain && *plain != '\0') && isatty(STDERR_FILENO) == 1;
}

ProgressDisplay::ProgressDisplay(MigrationPluginBase& plugin, RunReport& report)
    : plugin_(plugin), report_(report), thread_([this] { run(); }) {}

ProgressDisplay::~ProgressDisplay() {
  {
    const std::lock_guard lock(mutex_);
    over_ = true;
  }
  changed_.notify_one();
  thread_.join();
  showStatus("");
}

void ProgressDisplay::run() {
  std::unique_lock lock(mutex_);
  while (!over_) {
    draw();
    changed_.wait_for(lock, kInterval, [this] { return over_; });
  }
}

void ProgressDisplay::draw() {
  const float told = plugin_.migrationProgress();
  // Never beyond the end, never backwards, and nothing for no number.
  if (told >= 0) progress_ = std::max(progress_, std::min(static_cast<double>(told), 1.0));
  const size_t columns = terminalColumns();
  const std::string text =
      columns < kLeastColumns
          ? std::string()
          : statusText(report_.moment(), progress_,
                       static_cast<double>(plugin_.estimatedDuration()), columns);
  if (text == shown_) return;
  showStatus(text);
  shown_ = text;
}

}  // namespace pallion::host
