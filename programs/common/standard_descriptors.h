#pragma once

namespace pallion {

// To be called first: opens those of the descriptors 0 to 2 that the caller closed. Otherwise a
// file that is opened later would become standard output or standard error.
void openStandardDescriptors();

}  // namespace pallion
