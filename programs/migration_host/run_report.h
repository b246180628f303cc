#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/migration_plugin.h"
#include "programs/migration_host/host_logs.h"
#include "programs/migration_host/progress_moment.h"
#include "programs/migration_host/run_lines.h"
#include "programs/migration_host/run_record.h"
#include "programs/migration_host/run_snapshot.h"

namespace pallion::host {

enum class ReportForm { kNone, kTable, kJSON };

// Collects what happens in a run and tells it on standard output: as JSON a line with every
// container and every error, at the end the summary or the table. The run's thread feeds it; the
// progress display and the end by a signal ask it from their own.
class RunReport : public MigrationObserver, public LogListener {
 public:
  explicit RunReport(ReportForm form) : form_(form) {}

  void itemStarted(std::string_view identifier, std::string_view path) override;
  void stepStarted(std::string_view step) override;
  void entryMoved(std::string_view name) override;
  void itemFinished(bool result) override;
  void lineLogged(const LogLine& line) override;
  std::string containerInHand() override;

  // The migrator is about to be made; the clock starts.
  void began();
  void described(const std::string& dataClassName, float estimatedDuration);
  void ended(bool result, float progress);

  // All of it but what the plug-in tells.
  [[nodiscard]] ProgressSample sample();
  // The first error that was logged outside any container, or empty.
  [[nodiscard]] std::string firstProblem();

  // A line of JSON among the others; nothing for another form.
  void tell(const std::string& line);
  // What there is for the report in files; nothing before `began`. Waits a moment at most, then
  // there is nothing either: the run's thread may be stuck with standard output.
  [[nodiscard]] std::optional<RunSnapshot> snapshot();

  // The last words on standard output.
  void finish(int exitStatus);
  // The same for a process that is about to end in the midst of a run: never waits long, and
  // nothing more is told after it.
  void finishInterrupted(int exitStatus);

 private:
  [[nodiscard]] double secondsSinceBegin() const;
  void endStep(double now);
  bool lockSoon();

  const ReportForm form_;
  std::mutex mutex_;
  RunRecord record_;
  ContainerRecord inHand_;
  std::vector<std::string> errorsInHand_;
  size_t failed_ = 0;  // containers
  RunLines lines_;
  bool hasInHand_ = false;
  // When the container in hand and its step were begun, in seconds of the run, and what had been
  // copied by then.
  double itemBegan_ = 0;
  double stepBegan_ = 0;
  uint64_t bytesBefore_ = 0;
  bool hasBegun_ = false;
  timespec began_{};
  std::chrono::steady_clock::time_point beginning_;
};

}  // namespace pallion::host
