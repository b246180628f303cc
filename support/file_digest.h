#pragma once

#include <optional>
#include <string>

#include "foundation/export.h"
#include "foundation/url.h"

namespace pallion {

// The SHA-256 digest (FIPS 180-4) of a file, over the length that it had when it was opened, as 64
// lowercase hexadecimal digits; nothing when it could not be read whole, and the product log says
// why. Takes one buffer of at most 64 KiB, whatever the size. Any thread may call it.
PL_EXPORT std::optional<std::string> PLCreateSHA256Digest(const URL& file);

}  // namespace pallion
