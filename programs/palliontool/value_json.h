#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/value.h"

// Values as JSON: data is a base64 string, dates are RFC 3339 with whole seconds, sets are arrays,
// none is null. Bytes that are not UTF-8 become the text "\xHH".

namespace pallion::tool {

struct JSONDocument {
  std::string text;    // ends in a newline; empty when JSON can't hold the value
  std::string reason;  // then: why
};

JSONDocument jsonOf(const Value& value);

// An object of named values, in their order.
using Entries = std::vector<std::pair<std::string_view, Value>>;
JSONDocument jsonOf(const Entries& entries);

}  // namespace pallion::tool
