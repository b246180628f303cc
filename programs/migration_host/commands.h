#pragma once

#include "programs/migration_host/options.h"

// The host's commands. Each answers the program's exit status.

namespace pallion::host {

// Runs the migrator over the root.
int migrate(const Options& options);

// Shows what the registry of the root holds. Changes nothing.
int showApps(const Options& options);

}  // namespace pallion::host
