#include "programs/migration_host/progress_views.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string_view>
#include <sys/ioctl.h>
#include <tuple>
#include <unistd.h>
#include <utility>

#include "programs/common/console.h"
#include "programs/migration_host/json_output.h"
#include "programs/migration_host/progress_text.h"

namespace pallion::host {

namespace {

using std::chrono::milliseconds;

size_t terminalColumns() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

class BarView final : public ProgressView {
 public:
  [[nodiscard]] milliseconds interval() const override { return milliseconds(100); }
  void show(const ProgressMoment& moment, bool last) override {
    // Asked each time: the terminal may have been resized.
    showStatus(last ? std::vector<std::string>() : barRows(moment, terminalColumns(), colour_));
  }

 private:
  static bool mayColour() {
    const char* const plain = std::getenv("NO_COLOR");
    return !plain || *plain == '\0';
  }
  const bool colour_ = mayColour();
};

class LinesView final : public ProgressView {
 public:
  [[nodiscard]] milliseconds interval() const override { return milliseconds(5000); }
  void show(const ProgressMoment& moment, bool /*last*/) override { remark(statusText(moment)); }
};

// What makes a change of a moment. Tenths of a percent are as fine as a display can show.
auto changeOf(const ProgressMoment& moment) {
  const ProgressSample& sample = moment.sample;
  return std::make_tuple(static_cast<int>(moment.progress * 1000), sample.finished, sample.failed,
                         sample.bytes, sample.identifier, sample.step);
}

class RecordsView final : public ProgressView {
 public:
  // Answers whether the line was taken.
  using Sink = std::function<bool(const std::string& line)>;
  explicit RecordsView(Sink sink) : sink_(std::move(sink)) {}
  [[nodiscard]] milliseconds interval() const override { return milliseconds(100); }
  void show(const ProgressMoment& moment, bool last) override {
    auto change = changeOf(moment);
    if (change == shown_ && !last) return;
    if (sink_(progressJSON(moment))) shown_ = std::move(change);
  }

 private:
  const Sink sink_;
  decltype(changeOf({})) shown_{-2, 0, 0, 0, "", ""};
};

// Whole lines to somebody who may be slow, or gone.
class LineChannel {
 public:
  explicit LineChannel(int descriptor) : output_(descriptor) {}
  // False when the line is worth another try later.
  bool write(const std::string& line) {
    if (!rest_.empty()) rest_.erase(0, take(rest_));
    if (isLost_ || !rest_.empty()) return isLost_;
    const size_t taken = take(line);
    if (taken != 0) rest_ = line.substr(taken);
    return taken != 0 || isLost_;
  }

 private:
  size_t take(std::string_view text) {
    const ssize_t taken = output_.write(text);
    if (taken < 0) isLost_ = true;
    return taken > 0 ? static_cast<size_t>(taken) : 0;
  }

  PromptOutput output_;
  std::string rest_;  // of a line that was taken in part
  bool isLost_ = false;
};

class ServiceView final : public ProgressView {
 public:
  explicit ServiceView(const ServiceNotifier& notifier) : notifier_(notifier) {}
  [[nodiscard]] milliseconds interval() const override { return milliseconds(1000); }
  void show(const ProgressMoment& moment, bool /*last*/) override {
    auto change = changeOf(moment);
    if (change == shown_) return;
    notifier_.working(statusText(moment));
    shown_ = std::move(change);
  }

 private:
  const ServiceNotifier& notifier_;
  decltype(changeOf({})) shown_{-2, 0, 0, 0, "", ""};
};

}  // namespace

bool canShowBar() {
  const char* const terminal = std::getenv("TERM");
  return terminal && *terminal != '\0' && std::strcmp(terminal, "dumb") != 0 &&
         isatty(STDERR_FILENO) == 1;
}

std::unique_ptr<ProgressView> barView() { return std::make_unique<BarView>(); }

std::unique_ptr<ProgressView> linesView() { return std::make_unique<LinesView>(); }

std::unique_ptr<ProgressView> recordsView(int descriptor) {
  const auto channel = std::make_shared<LineChannel>(descriptor);
  return std::make_unique<RecordsView>(
      [channel](const std::string& line) { return channel->write(line); });
}

std::unique_ptr<ProgressView> recordsView(RunReport& report) {
  return std::make_unique<RecordsView>([&report](const std::string& line) {
    report.tell(line);
    return true;
  });
}

std::unique_ptr<ProgressView> serviceView(const ServiceNotifier& notifier) {
  return std::make_unique<ServiceView>(notifier);
}

}  // namespace pallion::host
