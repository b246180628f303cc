#pragma once

// What the program ends with. An interrupted run ends with 128 + the signal's number.

namespace pallion::host {

inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;       // wrong arguments, or a root that can't be entered
inline constexpr int kExitNoMigrator = 3;  // no module, a wrong one, or its start failed
inline constexpr int kExitLocked = 4;      // another run is at work on this root

}  // namespace pallion::host
