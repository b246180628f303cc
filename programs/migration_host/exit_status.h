#pragma once

#include "programs/common/exit_status.h"

// What the host ends with besides. An interrupted run ends with 128 + the signal's number.

namespace pallion::host {

inline constexpr int kExitNoMigrator = 3;  // no module, a wrong one, or its start failed
// Another run is at work on this root, or its plan is not the expected one.
inline constexpr int kExitLocked = 4;

}  // namespace pallion::host
