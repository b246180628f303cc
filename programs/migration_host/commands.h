#pragma once

#include "programs/migration_host/options.h"

// The host's commands. Each answers the program's exit status.

namespace pallion::host {

// Runs the migrator over the root.
int migrate(const Options& options);

// Shows what the migrator would do with the root. Changes nothing.
int showPlan(const Options& options);

// Shows what the registry of the root holds. Changes nothing.
int showApps(const Options& options);

// Writes down what user data the root's old layout holds. Changes nothing in the root.
int snapshot(const Options& options);

// Holds the user data of the root against such a snapshot.
int verify(const Options& options);

// Shows the report of the last run over the root. Changes nothing.
int showReport(const Options& options);

}  // namespace pallion::host
