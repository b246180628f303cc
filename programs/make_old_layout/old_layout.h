#pragma once

#include <cstdint>
#include <string>

#include "programs/make_old_layout/layout_options.h"

namespace pallion {

struct LayoutSummary {
  uint64_t awkwardCases = 0;
  uint64_t files = 0;
  uint64_t bytes = 0;
  // Of the first failure; 0 for none.
  int errorNumber = 0;
  std::string failedPath;
};

// 0 when a layout can be written below `root`: there is no old container yet. ENOTEMPTY when there
// is one, or the errno of the failed call.
int canHoldLayout(const std::string& root);

// Writes the layout; the same bytes, names, modes and times for the same options. Changes the
// process's file-creation mask.
LayoutSummary writeOldLayout(const LayoutOptions& options);

}  // namespace pallion
