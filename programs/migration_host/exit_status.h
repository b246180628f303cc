#pragma once

#include "programs/common/exit_status.h"

// What the host ends with besides. An interrupted run ends with 128 + the signal's number.

namespace pallion::host {

inline constexpr int kExitNoMigrator = 3;  // no module, a wrong one, or its start failed
inline constexpr int kExitLocked = 4;      // another run is at work on this root

}  // namespace pallion::host
