#include "programs/migration_host/run_record.h"

#include <algorithm>
#include <cstdio>

#include "platform/text_escape.h"
#include "programs/common/text_table.h"

namespace pallion::host {

std::string withoutSpeaker(const std::string& message) {
  constexpr std::string_view kSpeaker = "PLAppMigrator: ";
  return message.starts_with(kSpeaker) ? message.substr(kSpeaker.size()) : message;
}

std::string runTable(const RunRecord& record) {
  TextTable table;
  for (const ContainerRecord& container : record.containers) {
    table.addRow({container.identifier, container.result ? "migrated" : "failed",
                  withoutSpeaker(container.reason)});
  }
  std::string out = table.text();
  for (const std::string& problem : record.otherProblems) {
    out += "other problem: " + terminalText(withoutSpeaker(problem)) + "\n";
  }
  const auto migrated =
      std::count_if(record.containers.begin(), record.containers.end(),
                    [](const ContainerRecord& container) { return container.result; });
  char totals[128];
  std::snprintf(totals, sizeof totals, "%zu migrated, %zu failed, %zu other problem%s in %.1f s\n",
                static_cast<size_t>(migrated),
                record.containers.size() - static_cast<size_t>(migrated),
                record.otherProblems.size(), record.otherProblems.size() == 1 ? "" : "s",
                record.seconds.value_or(0));
  return out + totals;
}

}  // namespace pallion::host
