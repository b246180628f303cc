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

void RunReport::errorLogged(LogName log, std::string_view message) {
  const std::lock_guard lock(mutex_);
  if (form_ == ReportForm::kJSON)
    print(errorJSON(nameOf(log), message, hasInHand_ ? &inHand_.identifier : nullptr));
  // The host's log has the words for people; the product's has the same causes in more detail.
  if (log == LogName::kProduct) return;
  if (!hasInHand_) {
    record_.otherProblems.emplace_back(message);
  } else {
    errorsInHand_.emplace_back(message);
  }
}

void RunReport::began() {
  const std::lock_guard lock(mutex_);
  hasBegun_ = true;
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
  if (hasBegun_) record_.seconds = secondsSinceBegin();
  if (form_ == ReportForm::kJSON) {
    print(summaryJSON(record_, exitStatus));
  } else if (form_ == ReportForm::kTable && record_.result) {
    print(runTable(record_));
  }
}

void RunReport::finishInterrupted(int exitStatus) {
  if (form_ != ReportForm::kJSON) return;
  // The run's thread holds the lock for long only where standard output does not take a line; then
  // there is no telling it anything.
  for (int i = 0; i < 20; ++i) {
    if (mutex_.try_lock()) {
      record_.seconds = secondsSinceBegin();
      print(summaryJSON(record_, exitStatus));
      return;  // with the lock
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

double RunReport::secondsSinceBegin() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - beginning_).count();
}

}  // namespace pallion::host
