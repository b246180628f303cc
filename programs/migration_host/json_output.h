#pragma once

#include <string>
#include <vector>

#include "platform/registry.h"
#include "programs/migration_host/run_record.h"

// What --json prints. Texts that are not UTF-8 have their other bytes as "\xHH".

namespace pallion::host {

// A line {"type": "container", "identifier", "path", "result", "reason"}; the reason is null when
// there is none.
std::string containerJSON(const ContainerRecord& container);

// The line {"type": "summary", "exitStatus", "dataClassName", "estimatedDuration", "items",
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
