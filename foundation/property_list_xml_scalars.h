#pragma once

#include <string_view>

#include "foundation/value.h"

// The texts of scalar elements in XML property lists; not for use outside the reader. White space
// around a text is allowed. Each answers none for a text that is no such value.

namespace pallion::detail {

// Decimal, or hexadecimal after "0x"; any sign; from INT64_MIN to UINT64_MAX.
Value parseInteger(std::string_view text);
// Decimal with or without exponent, "nan", "inf", "infinity" (small or capital letters); any sign.
Value parseReal(std::string_view text);
// "YYYY-MM-DDThh:mm:ssZ", years 1 to 9999.
Value parseDate(std::string_view text);
// Base64 with padding (RFC 4648, section 4); white space anywhere.
Value parseBase64(std::string_view text);

}  // namespace pallion::detail
