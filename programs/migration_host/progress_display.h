#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "platform/migration_plugin.h"
#include "programs/migration_host/run_report.h"

namespace pallion::host {

// True when standard error is a terminal that can show a bar: not where TERM is "dumb" or missing,
// nor where NO_COLOR asks for plain output.
bool canShowProgress();

// Shows how far the migrator is, in one row at the bottom of the terminal, until it is destroyed.
class ProgressDisplay {
 public:
  // Both outlive this object.
  ProgressDisplay(MigrationPluginBase& plugin, RunReport& report);
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;
  ~ProgressDisplay();

 private:
  void run();
  void draw();

  MigrationPluginBase& plugin_;
  RunReport& report_;
  double progress_ = -1;
  std::string shown_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool over_ = false;
  std::thread thread_;
};

}  // namespace pallion::host
