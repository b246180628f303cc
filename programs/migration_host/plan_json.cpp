#include <nlohmann/json.hpp>
#include <utility>

#include "AppMigrator/plan_keys.h"
#include "platform/text_escape.h"
#include "programs/migration_host/plan.h"

namespace pallion::host {

namespace {

using Json = nlohmann::ordered_json;

Json jsonOf(const Value& value) {
  if (const std::string* text = value.asString()) return validUTF8(*text);
  if (const std::optional<bool> truth = value.asBoolean()) return *truth;
  if (value.isKindOfClass(Value::Class::kNumber)) return value.uint64Value();
  if (const Value::Array* members = value.asArray()) {
    Json list = Json::array();
    for (const Value& member : *members) list.push_back(jsonOf(member));
    return list;
  }
  const Dictionary* entries = value.asDictionary();
  if (!entries) return nullptr;
  Json object = Json::object();
  for (const auto& [key, entry] : *entries) {
    if (key.asString()) object[validUTF8(*key.asString())] = jsonOf(entry);
  }
  return object;
}

}  // namespace

std::string planJSON(const Dictionary& plan, int exitStatus) {
  constexpr std::pair<std::string_view, const char*> kSections[] = {
      {plan::kContainers, "container"}, {plan::kGroups, "group"},     {plan::kHarbors, "harbor"},
      {plan::kVolumes, "volume"},       {plan::kProblems, "problem"},
  };
  std::string lines;
  for (const auto& [key, kind] : kSections) {
    const Value section = plan.get(key);
    for (const Value& entry : section.asArray() ? *section.asArray() : Value::Array()) {
      Json line = {{"version", 1}, {"type", "plan"}, {"kind", kind}};
      line.update(jsonOf(entry));
      lines += line.dump() + "\n";
    }
  }
  const PlanCounts counts = countPlan(plan);
  const Json summary = {{"version", 1},
                        {"type", "summary"},
                        {"exitStatus", exitStatus},
                        {"planId", jsonOf(plan.get(plan::kId))},
                        {"result", jsonOf(plan.get(plan::kResult))},
                        {"nothingToMigrate", jsonOf(plan.get(plan::kNothingToMigrate))},
                        {"items", counts.containers},
                        {"migrated", counts.migrated},
                        {"failed", counts.failed},
                        {"removed", counts.removed},
                        {"left", counts.left},
                        {"groups", counts.groups},
                        {"harbors", counts.harbors},
                        {"problems", counts.problems},
                        {"bytes", counts.bytes},
                        {"entries", counts.entries}};
  return lines + summary.dump() + "\n";
}

}  // namespace pallion::host
