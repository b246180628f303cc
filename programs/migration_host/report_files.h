#pragma once

#include <optional>
#include <string>
#include <string_view>

// The report's two files inside the root: migration-report.json and migration-report.html beside
// the product log.

namespace pallion::host {

enum class ReportFile { kData, kPage };

// Where it is, for messages.
std::string reportPath(ReportFile file);

// Writes it durably and in one step over that of the run before, and makes the folder when it is
// missing. Never goes through a symbolic link. 0 or the errno of what failed.
int writeReportFile(ReportFile file, std::string_view bytes);

// What was written for programs. Nothing on failure; then *errorNumber holds the errno.
std::optional<std::string> readReportFile(int* errorNumber);

}  // namespace pallion::host
