#pragma once

#include <string_view>

#include "foundation/property_list.h"

namespace pallion::fuzz {

// Reads `bytes` and holds what comes out against the promises of foundation/property_list.h:
// memory in proportion, and nothing lost by writing in `format` and reading again.
void checkPropertyList(std::string_view bytes, PropertyListFormat format);

}  // namespace pallion::fuzz
