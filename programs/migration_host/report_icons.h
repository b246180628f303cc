#pragma once

#include <string>
#include <vector>

#include "programs/migration_host/run_record.h"

namespace pallion::host {

// For each container the icon of the application that is installed now, as a data: URL of a small
// PNG; empty where there is none, and for all further ones once kIconsMaximumBytes or the time that
// icons may take is used up. Reads the root's registry; the default one should be closed.
std::vector<std::string> containerIcons(const RunRecord& record);

inline constexpr size_t kIconsMaximumBytes = size_t{1} << 20;

}  // namespace pallion::host
