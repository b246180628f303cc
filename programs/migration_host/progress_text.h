#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "programs/migration_host/progress_moment.h"

// A moment of a run in words. Names in it may hold any bytes; they are made fit for a terminal.

namespace pallion::host {

// Two rows for a terminal of so many columns: the bar with its figures, and what is in hand. One of
// both where it is narrow, none where nothing fits. Of a terminal that does not know its width (0)
// 80 columns are used. The last column stays free: a full row would make some terminals begin
// another. `colour` asks for a coloured bar.
std::vector<std::string> barRows(const ProgressMoment& moment, size_t columns, bool colour);

// One line: "62%, 14 done, 1 failed, 12.3 MB/s, 01:12 elapsed, 00:44 left, com.example.app: data".
std::string statusText(const ProgressMoment& moment);

}  // namespace pallion::host
