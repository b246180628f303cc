#pragma once

#include <optional>

#include "foundation/export.h"
#include "foundation/url.h"
#include "foundation/value.h"

namespace pallion {

// The information property list of the bundle directory at `bundle`: whole, or reduced to `keys`, a
// set of strings (none for the whole; keys that the file lacks are missing). A dictionary of the
// caller's own; nothing when there is none, and the product log says why (level 7 for a missing
// file, level 3 otherwise). The whole dictionary never holds "QXBundleInfoPlistURL". Any thread may
// call it; at most one bundle is read at a time in the process.
PL_EXPORT std::optional<Dictionary> PLLoadInfoPlist(const URL& bundle, const Value& keys = Value());

}  // namespace pallion
