#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace pallion::host {

// What can be asked about a run at an instant.
struct ProgressSample {
  double told = -1;              // by the plug-in: 0 to 1; anything else says nothing
  double estimatedDuration = 0;  // seconds; 0 for none
  double seconds = 0;            // since the run began
  uint64_t bytes = 0;            // of content copied across volumes
  size_t finished = 0;           // containers, the failed ones included
  size_t failed = 0;
  std::string identifier{};  // of the container in hand; empty for none
  std::string step{};        // of its migration; empty for none
};

// What is shown of it.
struct ProgressMoment {
  ProgressSample sample;
  double progress = -1;  // 0 to 1, never less than before; negative while nothing is known
  std::optional<double> secondsLeft;
  std::optional<double> bytesPerSecond;  // of late; none when no bytes moved
  double itemsPerSecond = 0;             // of late
};

// Makes moments of the samples of one run, which come in the order of time.
class ProgressTracker {
 public:
  ProgressMoment next(ProgressSample sample);

 private:
  double progress_ = -1;
  ProgressSample before_;
  double bytesPerSecond_ = 0;
  double itemsPerSecond_ = 0;
  double bytesMoved_ = -1;  // when they last did, in seconds of the run
};

}  // namespace pallion::host
