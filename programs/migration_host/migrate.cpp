#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <unistd.h>
#include <utility>

#include "platform/journal.h"
#include "platform/registry.h"
#include "platform/service_transactions.h"
#include "programs/common/console.h"
#include "programs/migration_host/commands.h"
#include "programs/migration_host/exit_status.h"
#include "programs/migration_host/host_logs.h"
#include "programs/migration_host/interrupt_watch.h"
#include "programs/migration_host/migrator_root.h"
#include "programs/migration_host/plan.h"
#include "programs/migration_host/progress_display.h"
#include "programs/migration_host/progress_views.h"
#include "programs/migration_host/report.h"
#include "programs/migration_host/run_report.h"
#include "programs/migration_host/service_notifier.h"

namespace pallion::host {

namespace {

constexpr std::chrono::seconds kLongestTransaction(30);

// To be called before the root changes.
ProgressViews viewsFor(const Options& options, RunReport& report, const ServiceNotifier& notifier) {
  ProgressViews views;
  ProgressMode mode = options.progress;
  if (mode == ProgressMode::kAuto || (mode == ProgressMode::kBar && !canShowBar()))
    mode = canShowBar() ? ProgressMode::kBar : ProgressMode::kLines;
  if (mode == ProgressMode::kJSON && options.json) {
    views.push_back(recordsView(report));
  } else if (options.quiet) {
    // Standard error is for errors.
  } else if (mode == ProgressMode::kJSON) {
    views.push_back(recordsView(STDERR_FILENO));
  } else if (mode != ProgressMode::kNone) {
    views.push_back(mode == ProgressMode::kBar ? barView() : linesView());
  }
  if (options.statusDescriptor >= 0) views.push_back(recordsView(options.statusDescriptor));
  if (notifier.isOpen()) views.push_back(serviceView(notifier));
  return views;
}

int runMigrator(const PluginModule& module, RunReport& report, ProgressViews views) {
  report.began();
  const Plugin plugin = module.makePlugin();
  if (!plugin) {
    const std::string problem = report.firstProblem();
    complain(module.path() + ": there is no migrator" + (problem.empty() ? "" : ": " + problem));
    return kExitNoMigrator;
  }
  report.described(plugin->dataClassName(), plugin->estimatedDuration());
  plugin->setObserver(&report);
  bool result = false;
  {
    const ProgressDisplay display(*plugin, report, std::move(views));
    result = plugin->performMigration();
  }
  report.ended(result, plugin->migrationProgress());
  return result ? kExitSuccess : kExitFailure;
}

int run(const Options& options, RunReport& report, ServiceNotifier& notifier) {
  // All that stands outside the root comes before the root changes.
  const int log = options.logFile.empty() ? -1 : openLogFile(options.logFile);
  if (log < 0 && !options.logFile.empty()) {
    complain("warning: using the logs inside the root instead of " + options.logFile, errno);
  }
  const Journal journal(kJournalSocket);
  ProgressViews views = viewsFor(options, report, notifier);
  MigratorRoot root;
  if (const int refused = root.enter(options, MigratorRoot::Use::kRun)) return refused;
  if (!options.expectedPlan.empty() && !planIsExpected(options, root.module())) return kExitLocked;
  const HostLogs logs(options, log, &journal, &report);
  // `--log` keeps all that a run has to say out of the root.
  const auto keepReport = [&](int exitStatus) {
    auto snapshot = log < 0 ? report.snapshot() : std::nullopt;
    if (snapshot) writeReport(*std::move(snapshot), options, exitStatus);
  };
  const InterruptWatch watch([&](int exitStatus) {
    keepReport(exitStatus);
    report.finishInterrupted(exitStatus);
    notifier.ended(exitStatus);
  });
  const int status = runMigrator(root.module(), report, std::move(views));
  // What runs inside an open transaction ends before the process does; not for ever, though.
  ServiceTransactions::waitUntilIdle(kLongestTransaction);
  // Before the lock goes, so that the next run finds the registry at rest.
  closeDefaultRegistry();
  keepReport(status);
  return status;
}

}  // namespace

int migrate(const Options& options) {
  ReportForm form = options.quiet ? ReportForm::kNone : ReportForm::kTable;
  if (options.json) form = ReportForm::kJSON;
  RunReport report(form);
  ServiceNotifier notifier(std::getenv("NOTIFY_SOCKET"));
  const int status = run(options, report, notifier);
  report.finish(status);
  notifier.ended(status);
  return status;
}

}  // namespace pallion::host
