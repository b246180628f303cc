#pragma once

#include <string>
#include <string_view>

namespace pallion {

// A new random identifier (RFC 4122, version 4) in capitals,
// "XXXXXXXX-XXXX-4XXX-YXXX-XXXXXXXXXXXX".
std::string makeUUID();
bool isUUID(std::string_view text);

}  // namespace pallion
