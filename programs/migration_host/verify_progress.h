#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace pallion::host {

// Tells on standard error how far a reading is: in one row of a terminal, otherwise a line each
// five seconds. Belongs to one thread.
class ReadingProgress {
 public:
  // `total`: of the bytes that will be read, where known. A silent one tells nothing.
  explicit ReadingProgress(bool isSilent, std::optional<uint64_t> total = std::nullopt);
  ReadingProgress(const ReadingProgress&) = delete;
  ReadingProgress& operator=(const ReadingProgress&) = delete;
  // Takes the row away.
  ~ReadingProgress();

  void show(uint64_t bytes);

 private:
  using Clock = std::chrono::steady_clock;
  const bool isSilent_;
  const bool isRow_;
  const std::optional<uint64_t> total_;
  const Clock::time_point beginning_ = Clock::now();
  Clock::time_point shown_ = beginning_;
};

}  // namespace pallion::host
