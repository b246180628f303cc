#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/log_line.h"

namespace pallion::host {

// A line of one of the two logs.
struct RunLine {
  static constexpr size_t kNoContainer = SIZE_MAX;

  timespec time{};
  bool isOfHost = false;  // else of the product
  int level = 0;          // 3 error, 5 notice, 7 debug
  size_t container = 0;   // index in RunRecord::containers of the one in hand, or kNoContainer
  size_t function = 0;    // number of its name
  std::string message;    // shortened
};

// A message as reports show it: about its first kilobyte. (Some list every file of a container.)
std::string shortenedMessage(std::string_view message);

// The lines of a run that its report shows, in the order in which they were logged. They have a
// bound each for errors and for the rest, in bytes, so that a long run's memory and report stay
// small; what comes once a bound is reached is counted only.
class RunLines {
 public:
  static constexpr size_t kErrorBytes = size_t{4} << 20;
  static constexpr size_t kNoticeBytes = size_t{1} << 20;

  void add(const LogLine& line, size_t container);

  [[nodiscard]] const std::vector<RunLine>& lines() const { return lines_; }
  // Names by their number.
  [[nodiscard]] const std::vector<std::string>& functions() const { return functions_; }
  [[nodiscard]] const std::string& function(const RunLine& line) const {
    return functions_[line.function];
  }
  [[nodiscard]] size_t errorsLeftOut() const { return errors_.leftOut; }
  [[nodiscard]] size_t noticesLeftOut() const { return notices_.leftOut; }

 private:
  // What remains of a bound.
  struct Room {
    size_t bytes;
    size_t leftOut = 0;
  };

  size_t numberOf(std::string_view function);

  std::vector<RunLine> lines_;
  std::vector<std::string> functions_;
  std::map<std::string, size_t, std::less<>> numbers_;
  Room errors_{kErrorBytes};
  Room notices_{kNoticeBytes};
};

}  // namespace pallion::host
