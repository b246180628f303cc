#include "programs/migration_host/progress_text.h"

#include <algorithm>
#include <cstdio>

#include "platform/text_escape.h"

namespace pallion::host {

namespace {

constexpr size_t kUsualColumns = 80;
constexpr size_t kNarrow = 50;  // less than the bar, the figures and a few cells of bar need
constexpr size_t kLongestBar = 40;

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

std::string percentText(const ProgressMoment& moment) {
  if (moment.progress < 0) return "--%";
  // Rounded down, so that 100% is the end, but for what binary fractions lack.
  return std::to_string(static_cast<int>(moment.progress * 100 + 1e-6)) + "%";
}

std::string speedText(const ProgressMoment& moment) {
  char text[64];
  if (!moment.bytesPerSecond) {
    std::snprintf(text, sizeof text, "%.1f apps/s", std::min(moment.itemsPerSecond, 1e6));
    return text;
  }
  double speed = *moment.bytesPerSecond / 1000;
  const char* unit = "kMGTPE";
  for (; speed >= 1000 && unit[1] != '\0'; ++unit) speed /= 1000;
  std::snprintf(text, sizeof text, "%.1f %cB/s", speed, *unit);
  return text;
}

std::string leftText(const ProgressMoment& moment) {
  return (moment.secondsLeft ? clockText(*moment.secondsLeft) : std::string("--:--")) + " left";
}

std::string countText(const ProgressMoment& moment) {
  std::string text = std::to_string(moment.sample.finished - moment.sample.failed) + " done";
  if (moment.sample.failed != 0) text += ", " + std::to_string(moment.sample.failed) + " failed";
  return text;
}

std::string inHandText(const ProgressMoment& moment) {
  std::string text = terminalText(moment.sample.identifier);
  if (!moment.sample.step.empty()) text += ": " + terminalText(moment.sample.step);
  return text;
}

// The beginning of a UTF-8 text that surely takes no more columns. Every character of three bytes
// and more counts as a wide one, which some are.
std::string cut(const std::string& text, size_t columns) {
  size_t end = 0;
  while (end < text.size()) {
    const size_t length = std::max<size_t>(1, utf8SequenceLength(text.substr(end, 4)));
    const size_t width = length < 3 ? 1 : 2;
    if (width > columns) break;
    columns -= width;
    end += length;
  }
  return text.substr(0, end);
}

std::string bar(const ProgressMoment& moment, size_t width, bool colour) {
  const double share = std::max(moment.progress, 0.0);
  const auto full = static_cast<size_t>(share * static_cast<double>(width) + 1e-6);
  const std::string green = colour && full != 0 ? "\x1b[32m" : "";
  const std::string plain = green.empty() ? "" : "\x1b[0m";
  return "[" + green + std::string(full, '#') + plain + std::string(width - full, '-') + "]";
}

}  // namespace

std::vector<std::string> barRows(const ProgressMoment& moment, size_t columns, bool colour) {
  const size_t room = (columns == 0 ? kUsualColumns : columns) - 1;
  if (room == 0) return {};
  const std::string percent = percentText(moment);
  const std::string inHand = inHandText(moment);
  if (room < kNarrow)
    return {cut(percent + " " + (inHand.empty() ? countText(moment) : inHand), room)};
  const std::string figures = "] " + std::string(4 - percent.size(), ' ') + percent + "  " +
                              speedText(moment) + "  " + clockText(moment.sample.seconds) +
                              " elapsed  " + leftText(moment);
  const size_t taken = figures.size() + 1;
  std::string first = taken + 4 > room ? cut(figures.substr(2), room)
                                       : bar(moment, std::min(room - taken, kLongestBar), colour) +
                                             figures.substr(1);
  return {std::move(first), cut(countText(moment) + (inHand.empty() ? "" : "  " + inHand), room)};
}

std::string statusText(const ProgressMoment& moment) {
  std::string text = percentText(moment) + ", " + countText(moment) + ", " + speedText(moment) +
                     ", " + clockText(moment.sample.seconds) + " elapsed, " + leftText(moment);
  if (!moment.sample.identifier.empty()) text += ", " + inHandText(moment);
  return text;
}

}  // namespace pallion::host
