#pragma once

#include <string>

#include "programs/migration_host/run_snapshot.h"

namespace pallion::host {

// The run's log lines in its page, as data for the page's script, and what of the log is not there.
struct PageLines {
  size_t errorsLeftOut = 0;
  size_t noticesLeftOut = 0;

  // Appends {"began": milliseconds since 1970, "functions": [name], "lines": [[milliseconds since
  // then, 1 of the host's log or 0 of the product's, level, index of the container or null, index
  // of the function, message]]}. A message that is the container's reason is null: the page has it
  // already. Errors come before everything else when `out` would exceed `maximumSize` bytes.
  void append(std::string& out, const RunSnapshot& run, size_t maximumSize);
};

}  // namespace pallion::host
