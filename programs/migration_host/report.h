#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "programs/migration_host/options.h"
#include "programs/migration_host/run_snapshot.h"

// The report that a run leaves in files, for people (a page) and for programs (JSON).

namespace pallion::host {

struct Report {
  RunSnapshot run;
  int exitStatus = 0;              // of the host
  std::string root;                // as the command line names it
  std::vector<std::string> icons;  // by container: a data: URL, or empty for none
};

// "migrated", "failed" or "interrupted".
const char* outcomeName(Outcome outcome);

struct ReportTotals {
  size_t migrated = 0;
  size_t failed = 0;
  size_t unfinished = 0;
  uint64_t entries = 0;
  uint64_t bytes = 0;
};
ReportTotals totalsOf(const RunSnapshot& run);

// Indices of the five containers that took longest, the longest first.
std::vector<size_t> slowestContainers(const RunRecord& record);

// One line {"version": 1, "type": "report", "host", "root", "began" (RFC 3339), "seconds",
// "exitStatus", "result", "dataClassName", "estimatedDuration", "totals": {"migrated", "failed",
// "interrupted", "otherProblems", "entries", "bytes"}, "containers": [{"identifier", "path",
// "outcome", "reason", "step", "entries", "bytes", "seconds", "steps": [{"name", "seconds"}],
// "icon"}], "slowest": [index], "otherProblems": [message], "log": {"lines": [{"time", "log",
// "level", "container": index, "function", "message"}], "leftOut": {"errors", "notices"}}}. What
// there is not is null. Bytes of texts that are not UTF-8 are written "\xHH".
std::string reportJSON(const Report& report);

// The page: HTML that needs nothing from elsewhere.
std::string reportPage(const Report& report);

// Writes both into the product log's folder of the root, which the process has entered. On failure
// a line on standard error, and nothing else.
void writeReport(RunSnapshot run, const Options& options, int exitStatus);

}  // namespace pallion::host
