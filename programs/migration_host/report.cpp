#include "programs/migration_host/report.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "programs/common/console.h"
#include "programs/migration_host/report_files.h"
#include "programs/migration_host/report_icons.h"

namespace pallion::host {

const char* outcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::kMigrated:
      return "migrated";
    case Outcome::kFailed:
      return "failed";
    case Outcome::kUnfinished:
      break;
  }
  return "interrupted";
}

ReportTotals totalsOf(const RunSnapshot& run) {
  ReportTotals totals;
  for (size_t i = 0; i < run.record.containers.size(); ++i) {
    const Outcome outcome = outcomeOf(run, i);
    if (outcome == Outcome::kMigrated) ++totals.migrated;
    if (outcome == Outcome::kFailed) ++totals.failed;
    if (outcome == Outcome::kUnfinished) ++totals.unfinished;
    totals.entries += run.record.containers[i].entries;
    totals.bytes += run.record.containers[i].bytes;
  }
  return totals;
}

std::vector<size_t> slowestContainers(const RunRecord& record) {
  constexpr size_t kCount = 5;
  std::vector<size_t> indices(record.containers.size());
  std::iota(indices.begin(), indices.end(), size_t{0});
  const auto end = indices.begin() + static_cast<ptrdiff_t>(std::min(kCount, indices.size()));
  std::partial_sort(indices.begin(), end, indices.end(), [&record](size_t a, size_t b) {
    return record.containers[a].seconds > record.containers[b].seconds;
  });
  indices.erase(end, indices.end());
  return indices;
}

void writeReport(RunSnapshot run, const Options& options, int exitStatus) {
  Report report{std::move(run), exitStatus, options.root, {}};
  // At the end by a signal the run's thread may be at work in the registry.
  if (report.run.record.result) report.icons = containerIcons(report.run.record);
  // One text after the other in memory.
  ReportFile file = ReportFile::kData;
  int error = writeReportFile(file, reportJSON(report));
  if (error == 0) {
    file = ReportFile::kPage;
    error = writeReportFile(file, reportPage(report));
  }
  if (error != 0) complain("warning: no report of this run: " + reportPath(file), error);
}

}  // namespace pallion::host
