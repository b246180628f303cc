#include "programs/migration_host/progress_moment.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace pallion::host {

namespace {

// Speeds are averages in which what is this many seconds old counts a third.
constexpr double kMemory = 3;
// Without a byte for longer, what is told is not the speed of copying.
constexpr double kStillMoving = 2;
// The share of the work from which the time that it took is believed at once.
constexpr double kTellingShare = 0.05;

std::optional<double> secondsLeft(double progress, const ProgressSample& sample) {
  // In the first moments a small share of the work says little about its speed.
  if (progress >= kTellingShare || (progress > 0 && sample.seconds >= 1))
    return sample.seconds * (1 - progress) / progress;
  if (!(sample.estimatedDuration > 0)) return std::nullopt;
  return std::max(0.0, sample.estimatedDuration - sample.seconds);
}

}  // namespace

ProgressMoment ProgressTracker::next(ProgressSample sample) {
  // Also false for what is no number.
  if (sample.told >= 0) progress_ = std::max(progress_, std::min(sample.told, 1.0));
  const double elapsed = sample.seconds - before_.seconds;
  if (elapsed > 0) {
    const bool first = before_.seconds <= 0;
    const double weight = first ? 1 : 1 - std::exp(-elapsed / kMemory);
    const auto moved = static_cast<double>(sample.bytes - before_.bytes);
    const auto finished = static_cast<double>(sample.finished - before_.finished);
    bytesPerSecond_ += weight * (moved / elapsed - bytesPerSecond_);
    itemsPerSecond_ += weight * (finished / elapsed - itemsPerSecond_);
    if (moved > 0) bytesMoved_ = sample.seconds;
    before_ = sample;
  }
  ProgressMoment moment;
  moment.progress = progress_;
  moment.secondsLeft = secondsLeft(progress_, sample);
  if (bytesMoved_ >= 0 && sample.seconds - bytesMoved_ <= kStillMoving)
    moment.bytesPerSecond = bytesPerSecond_;
  moment.itemsPerSecond = itemsPerSecond_;
  moment.sample = std::move(sample);
  return moment;
}

}  // namespace pallion::host
