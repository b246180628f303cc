#pragma once

#include <ctime>

#include "programs/migration_host/run_lines.h"
#include "programs/migration_host/run_record.h"

namespace pallion::host {

// What a run's report in files is made from.
struct RunSnapshot {
  RunRecord record;
  RunLines lines;
  timespec began{};
  // The last container of the record was still in hand; it has neither result nor reason.
  bool lastIsUnfinished = false;
};

// One of the containers, by its index.
enum class Outcome { kMigrated, kFailed, kUnfinished };

inline Outcome outcomeOf(const RunSnapshot& run, size_t index) {
  if (run.lastIsUnfinished && index + 1 == run.record.containers.size())
    return Outcome::kUnfinished;
  return run.record.containers[index].result ? Outcome::kMigrated : Outcome::kFailed;
}

}  // namespace pallion::host
