#pragma once

#include "foundation/url.h"
#include "foundation/value.h"

namespace pallion {

class PLGlobalConfiguration;

URL safeHarborMapURL(const PLGlobalConfiguration& configuration);

// What an entry of the safe-harbor map says. The strings are the entry's own and live as long.
struct HarborEntry {
  enum class State { kUsable, kKeyIsNoString, kNoDictionary, kWithoutPath };
  State state = State::kUsable;
  const std::string* identifier = nullptr;  // null for kKeyIsNoString
  const std::string* path = nullptr;        // of kUsable
};
HarborEntry harborEntryOf(const Value& key, const Value& entry);

}  // namespace pallion
