#pragma once

#include <optional>
#include <string>
#include <string_view>

// The report's two files inside the root: migration-report.json and migration-report.html beside
// the product log.

namespace pallion::host {

// Writes each durably and in one step over that of the run before, and makes the folder when it is
// missing. Never goes through a symbolic link. 0, or the errno of what failed with `path` saying
// where.
int writeReportFiles(std::string_view json, std::string_view page, std::string& path);

// What was written for programs. Nothing on failure; then *errorNumber holds the errno.
std::optional<std::string> readReportFile(std::string& path, int* errorNumber);

}  // namespace pallion::host
