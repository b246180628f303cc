#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "platform/migration_plugin.h"
#include "programs/migration_host/progress_moment.h"
#include "programs/migration_host/progress_views.h"
#include "programs/migration_host/run_report.h"

namespace pallion::host {

// Shows on a thread of its own how far the migrator is, until it is destroyed: to every view at
// first, whenever its interval is over, and at the end. Whenever the process gets SIGUSR1, a line
// on standard error says the same; without views nothing else wakes the thread.
class ProgressDisplay {
 public:
  // SIGUSR1 is blocked in every thread. Plug-in and report outlive this object.
  ProgressDisplay(MigrationPluginBase& plugin, RunReport& report, ProgressViews views);
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;
  ~ProgressDisplay();

 private:
  using Clock = std::chrono::steady_clock;
  struct Shown {
    std::unique_ptr<ProgressView> view;
    Clock::time_point due;
  };

  void run();
  ProgressMoment moment();
  // True when SIGUSR1 came before anything was due or over.
  [[nodiscard]] bool sleep() const;
  void show(bool last);

  MigrationPluginBase& plugin_;
  RunReport& report_;
  std::vector<Shown> views_;
  ProgressTracker tracker_;
  std::atomic<bool> over_{false};
  std::thread thread_;
};

}  // namespace pallion::host
