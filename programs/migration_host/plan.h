#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "foundation/value.h"
#include "programs/migration_host/options.h"
#include "programs/migration_host/plugin_module.h"

namespace pallion::host {

// What the migrator would do with the root, which is entered already: its keys are those of
// AppMigrator/plan_keys.h. Nothing on disk is changed and no log line written. None when the module
// can't tell.
std::optional<Dictionary> makePlan(const PluginModule& module);

// Whether the plan has the id that the caller expects; otherwise a line on standard error says so.
bool planIsExpected(const Options& options, const PluginModule& module);

// Containers are counted by what happens to them; `failed` are those of `migrated` that will fail.
struct PlanCounts {
  uint64_t containers = 0;
  uint64_t migrated = 0;
  uint64_t failed = 0;
  uint64_t removed = 0;
  uint64_t left = 0;
  uint64_t groups = 0;   // that are moved
  uint64_t harbors = 0;  // likewise
  uint64_t problems = 0;
  uint64_t bytes = 0;  // of what is moved, and the next one likewise
  uint64_t entries = 0;
};
PlanCounts countPlan(const Dictionary& plan);

// One line of JSON for each container, group, harbor, volume and problem: {"version": 1, "type":
// "plan", "kind", ...} with the keys of plan_keys.h; what has no value is left out. Then the line
// {"version": 1, "type": "summary", "exitStatus", "planId", "result", "nothingToMigrate"} with the
// counts under their names.
std::string planJSON(const Dictionary& plan, int exitStatus);

// A table of the same for people.
std::string planTable(const Dictionary& plan);

}  // namespace pallion::host
