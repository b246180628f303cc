#pragma once

#include <cstdint>

#include "foundation/value.h"
#include "programs/make_old_layout/bundles.h"
#include "programs/make_old_layout/tree_writer.h"

namespace pallion {

// Adds to the old containers, the group map and the safe-harbor map what a migration has to cope
// with. Answers how many cases there are; each stands in the source with its effect.
uint64_t writeAwkwardCases(Directory& containers, Dictionary& groups, Dictionary& harbors,
                           Pictures& pictures);

}  // namespace pallion
