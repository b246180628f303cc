#pragma once

#include "foundation/url.h"

namespace pallion {

// The process's temporary directory: `TMPDIR` when that is an absolute path, else /tmp. Not made or
// looked at.
URL temporaryDirectory();

}  // namespace pallion
