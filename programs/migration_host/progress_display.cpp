#include "programs/migration_host/progress_display.h"

#include <algorithm>
#include <csignal>
#include <pthread.h>
#include <utility>

#include "programs/common/console.h"
#include "programs/migration_host/progress_text.h"

namespace pallion::host {

namespace {

// Wakes the thread at the end. SIGRTMIN itself is the interrupt watch's.
int wakeSignal() { return SIGRTMIN + 1; }

sigset_t awaitedSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  sigaddset(&signals, wakeSignal());
  return signals;
}

}  // namespace

ProgressDisplay::ProgressDisplay(MigrationPluginBase& plugin, RunReport& report,
                                 ProgressViews views)
    : plugin_(plugin), report_(report) {
  for (std::unique_ptr<ProgressView>& view : views) views_.push_back({std::move(view), {}});
  // The thread has to be born with its signals blocked.
  const sigset_t signals = awaitedSignals();
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &signals, &before);
  thread_ = std::thread([this] { run(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

ProgressDisplay::~ProgressDisplay() {
  over_ = true;
  pthread_kill(thread_.native_handle(), wakeSignal());
  thread_.join();
}

void ProgressDisplay::run() {
  show(false);
  while (!over_) {
    if (sleep()) remark(statusText(moment()));
    if (!over_) show(false);
  }
  show(true);
}

bool ProgressDisplay::sleep() const {
  const sigset_t signals = awaitedSignals();
  siginfo_t info;
  if (views_.empty()) return sigwaitinfo(&signals, &info) == SIGUSR1;
  const auto due =
      std::min_element(views_.begin(), views_.end(), [](const Shown& a, const Shown& b) {
        return a.due < b.due;
      })->due;
  const auto left = std::max<Clock::duration>(due - Clock::now(), Clock::duration::zero());
  const auto whole = std::chrono::duration_cast<std::chrono::seconds>(left);
  const timespec timeout{whole.count(), std::chrono::nanoseconds(left - whole).count()};
  return sigtimedwait(&signals, &info, &timeout) == SIGUSR1;
}

void ProgressDisplay::show(bool last) {
  const Clock::time_point now = Clock::now();
  const auto isDue = [&](const Shown& shown) { return last || shown.due <= now; };
  if (std::none_of(views_.begin(), views_.end(), isDue)) return;
  const ProgressMoment current = moment();
  for (Shown& shown : views_) {
    if (!isDue(shown)) continue;
    shown.view->show(current, last);
    shown.due = now + shown.view->interval();
  }
}

ProgressMoment ProgressDisplay::moment() {
  ProgressSample sample = report_.sample();
  sample.told = static_cast<double>(plugin_.migrationProgress());
  return tracker_.next(std::move(sample));
}

}  // namespace pallion::host
