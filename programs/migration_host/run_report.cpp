#include "programs/migration_host/run_report.h"

#include <thread>
#include <utility>

#include "platform/tree_copy.h"
#include "programs/common/console.h"
#include "programs/migration_host/json_output.h"

namespace pallion::host {

void RunReport::itemStarted(std::string_view identifier, std::string_view path) {
  const std::lock_guard lock(mutex_);
  inHand_ = {};
  inHand_.identifier = identifier;
  inHand_.path = path;
  itemBegan_ = secondsSinceBegin();
  bytesBefore_ = TreeCopy::current().bytesCopied();
  hasInHand_ = true;
  errorsInHand_.clear();
}

void RunReport::stepStarted(std::string_view step) {
  const std::lock_guard lock(mutex_);
  if (!hasInHand_) return;
  const double now = secondsSinceBegin();
  endStep(now);
  stepBegan_ = now;
  inHand_.steps.push_back({std::string(step), 0});
}

void RunReport::endStep(double now) {
  if (!inHand_.steps.empty()) inHand_.steps.back().seconds = now - stepBegan_;
}

void RunReport::entryMoved(std::string_view /*name*/) {
  const std::lock_guard lock(mutex_);
  ++inHand_.entries;
}

void RunReport::itemFinished(bool result) {
  const std::lock_guard lock(mutex_);
  if (!hasInHand_) return;
  hasInHand_ = false;
  inHand_.result = result;
  const double now = secondsSinceBegin();
  endStep(now);
  inHand_.seconds = now - itemBegan_;
  inHand_.bytes = TreeCopy::current().bytesCopied() - bytesBefore_;
  // What decides a failure comes last but for the plug-in's own word that the item failed.
  const size_t errors = errorsInHand_.size();
  if (errors != 0) inHand_.reason = errorsInHand_[result || errors == 1 ? 0 : errors - 2];
  if (form_ == ReportForm::kJSON) print(itemJSON(inHand_));
  if (!result) ++failed_;
  record_.containers.push_back(std::move(inHand_));
}

void RunReport::lineLogged(const LogLine& line) {
  const std::lock_guard lock(mutex_);
  lines_.add(line, hasInHand_ ? record_.containers.size() : RunLine::kNoContainer);
  if (line.level > kLogError) return;
  if (form_ == ReportForm::kJSON)
    print(errorJSON(logOf(line), line.message, hasInHand_ ? &inHand_.identifier : nullptr));
  // The host's log has the words for people; the product's has the same causes in more detail.
  if (!line.category) return;
  if (!hasInHand_) {
    record_.otherProblems.emplace_back(line.message);
  } else {
    errorsInHand_.emplace_back(line.message);
  }
}

void RunReport::began() {
  const std::lock_guard lock(mutex_);
  hasBegun_ = true;
  began_ = currentTime();
  beginning_ = std::chrono::steady_clock::now();
}

void RunReport::described(const std::string& dataClassName, float estimatedDuration) {
  const std::lock_guard lock(mutex_);
  record_.dataClassName = dataClassName;
  record_.estimatedDuration = estimatedDuration;
}

void RunReport::ended(bool result, float progress) {
  const std::lock_guard lock(mutex_);
  record_.result = result;
  record_.progress = progress;
}

std::string RunReport::containerInHand() {
  const std::lock_guard lock(mutex_);
  return hasInHand_ ? inHand_.identifier : std::string();
}

ProgressSample RunReport::sample() {
  ProgressSample sample;
  sample.bytes = TreeCopy::current().bytesCopied();
  const std::lock_guard lock(mutex_);
  sample.estimatedDuration = static_cast<double>(record_.estimatedDuration.value_or(0));
  sample.seconds = secondsSinceBegin();
  sample.finished = record_.containers.size();
  sample.failed = failed_;
  if (hasInHand_) {
    sample.identifier = inHand_.identifier;
    if (!inHand_.steps.empty()) sample.step = inHand_.steps.back().name;
  }
  return sample;
}

void RunReport::tell(const std::string& line) {
  const std::lock_guard lock(mutex_);
  if (form_ == ReportForm::kJSON) print(line);
}

std::string RunReport::firstProblem() {
  const std::lock_guard lock(mutex_);
  return record_.otherProblems.empty() ? std::string() : record_.otherProblems.front();
}

void RunReport::finish(int exitStatus) {
  const std::lock_guard lock(mutex_);
  // The files of the report and these words give the same time.
  if (hasBegun_ && !record_.seconds) record_.seconds = secondsSinceBegin();
  if (form_ == ReportForm::kJSON) {
    print(summaryJSON(record_, exitStatus));
  } else if (form_ == ReportForm::kTable && record_.result) {
    print(runTable(record_));
  }
}

void RunReport::finishInterrupted(int exitStatus) {
  if (form_ != ReportForm::kJSON || !lockSoon()) return;
  record_.seconds = secondsSinceBegin();
  print(summaryJSON(record_, exitStatus));
  // The lock is kept.
}

std::optional<RunSnapshot> RunReport::snapshot() {
  if (!lockSoon()) return std::nullopt;
  const std::lock_guard lock(mutex_, std::adopt_lock);
  if (!hasBegun_) return std::nullopt;
  const double now = secondsSinceBegin();
  record_.seconds = now;
  RunSnapshot taken{record_, lines_, began_, hasInHand_};
  if (hasInHand_) {
    ContainerRecord& container = taken.record.containers.emplace_back(inHand_);
    if (!container.steps.empty()) container.steps.back().seconds = now - stepBegan_;
    container.seconds = now - itemBegan_;
    container.bytes = TreeCopy::current().bytesCopied() - bytesBefore_;
  }
  return taken;
}

// The run's thread holds the lock for long only where standard output does not take a line.
bool RunReport::lockSoon() {
  for (int i = 0; i < 20; ++i) {
    if (mutex_.try_lock()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

double RunReport::secondsSinceBegin() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - beginning_).count();
}

}  // namespace pallion::host
