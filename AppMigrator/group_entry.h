#pragma once

#include <optional>
#include <string>

#include "foundation/url.h"
#include "foundation/value.h"

namespace pallion {

// What the map of the old group containers says of one group.
struct GroupEntry {
  enum class State {
    kUsable,
    kUnknown,      // no entry, or no dictionary
    kWithoutPath,  // the entry names no container
    kMissing,      // the old container is not there
    kInsideNew,    // it is the new one or lies in it: what has to make room would be what is moved
  };
  State state = State::kUnknown;
  URL from;  // the old container, for the last two and kUsable
};

// Looks at the entry, and at the old container. Without `newURL` there is no new one yet.
GroupEntry groupEntryFor(const Dictionary& map, const std::string& group,
                         const std::optional<URL>& newURL);

}  // namespace pallion
