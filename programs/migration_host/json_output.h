#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"
#include "programs/migration_host/progress_moment.h"
#include "programs/migration_host/run_record.h"

// What --json prints. Texts that are not UTF-8 have their other bytes as "\xHH".

namespace pallion::host {

// Every line begins with "version": 1 and its "type"; docs/json-lines.schema.json describes them
// all.

// {"type": "item", "identifier", "path", "result", "reason", "step", "steps": [{"name",
// "seconds"}], "entries", "bytes", "seconds"} of a finished container: "step" is the one that was
// reached. Reason and step are null when there is none.
std::string itemJSON(const ContainerRecord& container);

// {"type": "progress", "progress", "identifier", "step", "finished", "failed", "bytes",
// "bytesPerSecond", "itemsPerSecond", "seconds", "secondsLeft"}; what is not known is null.
std::string progressJSON(const ProgressMoment& moment);

// {"type": "error", "log", "message", "container"}; `container` is the identifier in hand, or null.
std::string errorJSON(const char* log, std::string_view message, const std::string* container);

// The last line, {"type": "summary", "exitStatus", "dataClassName", "estimatedDuration", "items",
// "result", "progress", "seconds", "containers": [{"identifier", "path", "result"}]}. "items"
// counts the containers that were dealt with: the plug-in tells the size of its inventory to
// nobody. What was not reached is null.
std::string summaryJSON(const RunRecord& record, int exitStatus);

// {"applications": [{"identifier", "type", "placeholder", "builtIn", "version", "bundleURL",
// "bundleContainerURL", "dataContainerURL", "groupContainerURLs": {identifier: path}}],
// "safeHarbors": [{"identifier", "path", "containerType"}]}. Paths are plain and without a slash at
// the end; what is missing is null.
std::string appsJSON(const std::vector<BundleProxy>& applications,
                     const std::vector<SafeHarborRecord>& harbors);

}  // namespace pallion::host
