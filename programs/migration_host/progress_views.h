#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "programs/common/prompt_output.h"
#include "programs/migration_host/progress_moment.h"
#include "programs/migration_host/run_report.h"
#include "programs/migration_host/service_notifier.h"

namespace pallion::host {

// A way to show how far a run is. Belongs to the thread of the display and never makes it wait.
class ProgressView {
 public:
  ProgressView() = default;
  ProgressView(const ProgressView&) = delete;
  ProgressView& operator=(const ProgressView&) = delete;
  virtual ~ProgressView() = default;
  // Between two calls of `show`.
  [[nodiscard]] virtual std::chrono::milliseconds interval() const = 0;
  // `last`: the run is over.
  virtual void show(const ProgressMoment& moment, bool last) = 0;
};

using ProgressViews = std::vector<std::unique_ptr<ProgressView>>;

// True when standard error is a terminal that can move its cursor (TERM is neither missing nor
// "dumb").
bool canShowBar();

// The rows at the bottom of the terminal, without colours where NO_COLOR asks for that.
std::unique_ptr<ProgressView> barView();
// A line on standard error every five seconds, and the first and the last.
std::unique_ptr<ProgressView> linesView();
// JSON lines to a descriptor: one a change, at most ten a second. What the reader has no room for
// is left out, never a part of a line; when the reader goes away that is the end of them. The
// descriptor is opened now, before the root changes.
std::unique_ptr<ProgressView> recordsView(int descriptor);
// The same among the report's JSON lines on standard output.
std::unique_ptr<ProgressView> recordsView(RunReport& report);
// The status of the unit that the service manager shows.
std::unique_ptr<ProgressView> serviceView(const ServiceNotifier& notifier);

}  // namespace pallion::host
