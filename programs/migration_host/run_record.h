#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pallion::host {

// A step of a container's migration, as the plug-in names it.
struct StepRecord {
  std::string name;
  double seconds = 0;
};

// What became of one container.
struct ContainerRecord {
  std::string identifier;
  std::string path;
  bool result = false;
  // The error that decided: of a failed container the last one before the plug-in's word that it
  // failed, of a migrated one the first, which did not keep it. Empty for none.
  std::string reason;
  double seconds = 0;
  std::vector<StepRecord> steps;  // in the order in which they were entered; the last was reached
  uint64_t entries = 0;           // of its user data and groups that have their new place
  uint64_t bytes = 0;             // of content that crossed volumes
};

// What became of a run. Members without a value were not reached.
struct RunRecord {
  std::optional<std::string> dataClassName;
  std::optional<float> estimatedDuration;  // seconds
  std::optional<bool> result;
  std::optional<float> progress;  // when performMigration had returned
  std::optional<double> seconds;  // since the migrator was made
  // In the order in which they were dealt with. Inventory items that were no container to migrate
  // are not among them.
  std::vector<ContainerRecord> containers;
  // Errors that were logged while no container was in hand.
  std::vector<std::string> otherProblems;
};

// A message without the migrator's name, with which each of its errors begins.
std::string withoutSpeaker(const std::string& message);

// Lines for people: one a container (identifier, outcome, reason), one for each other problem, and
// the totals.
std::string runTable(const RunRecord& record);

}  // namespace pallion::host
