#pragma once

#include <deque>
#include <set>
#include <string>

#include "foundation/url.h"
#include "foundation/value.h"

// In which order a run deals with what it found, and what it finds no reason to begin.

namespace pallion {

// A container that is to be migrated; container_info.h has the keys of `info`.
struct QueuedContainer {
  URL url;
  Dictionary info;
};
using ContainerQueue = std::deque<QueuedContainer>;

// Early containers go first, the latest before the others; the rest stay in their order.
void enqueueContainer(ContainerQueue& queue, QueuedContainer container, bool early);

// The note that is removed wherever it lies among the containers.
bool isApplicationsLocationNote(const URL& item);

enum class Objection {
  kNone,
  kSpeaksOfAnotherPlace,  // a marker that would have what belongs to somebody else moved or removed
  kAnotherOfItWasBegun,   // its data would replace what the other container's data has just become
};
// Whether the container may be begun. `begun` holds the identifiers of those that were, to which
// that of this one is added.
Objection objectionTo(const QueuedContainer& container, std::set<std::string>& begun);

}  // namespace pallion
