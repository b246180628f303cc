#include "programs/migration_host/verify_progress.h"

#include <algorithm>
#include <cstdio>

#include "programs/common/console.h"
#include "programs/migration_host/progress_views.h"

namespace pallion::host {

namespace {

constexpr auto kRowInterval = std::chrono::milliseconds(200);
constexpr auto kLineInterval = std::chrono::seconds(5);
constexpr double kMebibyte = 1024.0 * 1024.0;

}  // namespace

ReadingProgress::ReadingProgress(bool isSilent, std::optional<uint64_t> total)
    : isSilent_(isSilent), isRow_(canShowBar()), total_(total) {}

ReadingProgress::~ReadingProgress() {
  if (isRow_ && !isSilent_) showStatus({});
}

void ReadingProgress::show(uint64_t bytes) {
  if (isSilent_) return;
  const Clock::time_point now = Clock::now();
  if (now - shown_ < (isRow_ ? Clock::duration(kRowInterval) : Clock::duration(kLineInterval))) {
    return;
  }
  shown_ = now;
  const double seconds = std::chrono::duration<double>(now - beginning_).count();
  const double read = static_cast<double>(bytes) / kMebibyte;
  char text[96];
  int length = std::snprintf(text, sizeof text, "%.0f MiB read, %.0f MiB/s", read, read / seconds);
  if (total_ && *total_ > 0) {
    const uint64_t percent = std::min<uint64_t>(100, bytes / std::max<uint64_t>(1, *total_ / 100));
    std::snprintf(text + length, sizeof text - static_cast<size_t>(length), ", %llu%%",
                  static_cast<unsigned long long>(percent));
  }
  if (isRow_) {
    showStatus({text});
  } else {
    remark(text);
  }
}

}  // namespace pallion::host
