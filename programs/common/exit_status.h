#pragma once

// What every program ends with.

namespace pallion {

inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;  // wrong arguments, or a root that can't be entered

}  // namespace pallion
