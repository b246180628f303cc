#include <array>
#include <cstdio>

#include "AppMigrator/plan_keys.h"
#include "programs/common/text_table.h"
#include "programs/migration_host/plan.h"

namespace pallion::host {

namespace {

std::string textOf(const Dictionary& line, std::string_view key) {
  const std::string* text = line.getString(key);
  return text ? *text : std::string();
}

uint64_t numberOf(const Dictionary& line, std::string_view key) {
  return line.get(key).uint64Value();
}

// "812 B", "1.2 MiB".
std::string sizeText(uint64_t bytes) {
  constexpr std::array<const char*, 6> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  auto size = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  for (; size >= 1023.95; size /= 1024) ++unit;
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", size, kUnits[unit]);
  return text;
}

std::string amount(const Dictionary& line) {
  if (!line.get(plan::kBytes)) return {};
  const bool incomplete = line.get(plan::kIncomplete).asBoolean() == true;
  return (incomplete ? "at least " : "") + sizeText(numberOf(line, plan::kBytes)) + " in " +
         std::to_string(numberOf(line, plan::kEntries)) + " items";
}

template <class Visit>
void forEach(const Dictionary& owner, std::string_view key, const Visit& visit) {
  const Value list = owner.get(key);
  if (!list.asArray()) return;
  for (const Value& member : *list.asArray()) {
    if (member.asDictionary()) visit(*member.asDictionary());
  }
}

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

void addNames(TextTable& table, const Dictionary& line, std::string_view key,
              const std::string& what) {
  const Value names = line.get(key);
  if (!names.asArray()) return;
  for (const Value& name : *names.asArray()) {
    if (name.asString()) table.addRow({"  " + *name.asString(), what});
  }
}

void addContainer(TextTable& table, const Dictionary& line) {
  std::string action = textOf(line, plan::kAction);
  if (line.get(plan::kResumed).asBoolean() == true) action = "resume";
  if (line.get(plan::kSucceeds).asBoolean() == false) action += ", fails";
  std::string what = textOf(line, plan::kIdentifier);
  if (!what.empty()) what += " (" + textOf(line, plan::kContainerType) + ")";
  for (const std::string_view key : {plan::kInstallation, plan::kReason}) {
    const std::string more = textOf(line, key);
    if (!more.empty()) what += (what.empty() ? "" : ", ") + more;
  }
  table.addRow({nameOf(textOf(line, plan::kPath)), action, what});
  forEach(line, plan::kItems, [&](const Dictionary& item) {
    table.addRow({"  " + textOf(item, plan::kName), textOf(item, plan::kAction), amount(item)});
  });
  addNames(table, line, plan::kMissed, "stays");
  addNames(table, line, plan::kDiscarded, "goes with the container");
  addNames(table, line, plan::kSwept, "left over, removed");
}

void addSharedData(TextTable& table, const Dictionary& line) {
  const std::string reason = textOf(line, plan::kReason);
  const std::string path = textOf(line, plan::kPath);
  table.addRow({textOf(line, plan::kIdentifier), textOf(line, plan::kAction),
                reason.empty() ? amount(line) + " at " + path : reason});
}

std::string section(const char* title, const TextTable& table) {
  const std::string text = table.text();
  return text.empty() ? text : std::string(title) + "\n" + text + "\n";
}

}  // namespace

PlanCounts countPlan(const Dictionary& plan) {
  PlanCounts counts;
  const auto isMoved = [](const Dictionary& line) {
    const std::string* action = line.getString(plan::kAction);
    return action && (*action == plan::kRename || *action == plan::kCopy);
  };
  const auto addAmount = [&](const Dictionary& line) {
    if (!isMoved(line)) return;
    counts.bytes += numberOf(line, plan::kBytes);
    counts.entries += numberOf(line, plan::kEntries);
  };
  forEach(plan, plan::kContainers, [&](const Dictionary& line) {
    const std::string action = textOf(line, plan::kAction);
    ++counts.containers;
    counts.migrated += action == plan::kMigrate;
    counts.removed += action == plan::kRemove;
    counts.left += action == plan::kLeave;
    counts.failed += line.get(plan::kSucceeds).asBoolean() == false;
    forEach(line, plan::kItems, addAmount);
  });
  for (auto [key, count] :
       {std::pair{plan::kGroups, &counts.groups}, std::pair{plan::kHarbors, &counts.harbors}}) {
    forEach(plan, key, [&](const Dictionary& line) {
      *count += isMoved(line);
      addAmount(line);
    });
  }
  forEach(plan, plan::kProblems, [&](const Dictionary&) { ++counts.problems; });
  return counts;
}

std::string planTable(const Dictionary& plan) {
  if (plan.get(plan::kNothingToMigrate).asBoolean() == true &&
      plan.get(plan::kResult).asBoolean() == true) {
    return "nothing to migrate\n";
  }
  TextTable containers;
  TextTable groups;
  TextTable harbors;
  TextTable volumes;
  TextTable problems;
  forEach(plan, plan::kContainers, [&](const Dictionary& line) { addContainer(containers, line); });
  forEach(plan, plan::kGroups, [&](const Dictionary& line) { addSharedData(groups, line); });
  forEach(plan, plan::kHarbors, [&](const Dictionary& line) { addSharedData(harbors, line); });
  forEach(plan, plan::kVolumes, [&](const Dictionary& line) {
    const bool readOnly = line.get(plan::kReadOnly).asBoolean() == true;
    volumes.addRow({textOf(line, plan::kPath), sizeText(numberOf(line, plan::kNeeded)) + " needed",
                    sizeText(numberOf(line, plan::kAvailable)) + " free",
                    readOnly ? "read-only" : ""});
  });
  forEach(plan, plan::kProblems, [&](const Dictionary& line) {
    const std::string path = textOf(line, plan::kPath);
    problems.addRow({(path.empty() ? "" : path + ": ") + textOf(line, plan::kReason)});
  });
  const PlanCounts counts = countPlan(plan);
  std::string text = section("Containers", containers) + section("Group containers", groups) +
                     section("Safe harbors", harbors) + section("Volumes", volumes) +
                     section("What makes the run fail", problems);
  text += std::to_string(counts.migrated) + " containers to migrate (" +
          std::to_string(counts.failed) + " will fail), " + std::to_string(counts.removed) +
          " to remove, " + std::to_string(counts.left) + " to leave alone; " +
          sizeText(counts.bytes) + " in " + std::to_string(counts.entries) + " items to move\n";
  return text + "plan " + textOf(plan, plan::kId) + "\n";
}

}  // namespace pallion::host
