#include "AppMigrator/group_entry.h"
#include "AppMigrator/harbor_entry.h"
#include "AppMigrator/plan.h"
#include "AppMigrator/plan_keys.h"
#include "file_operations/file_manager.h"
#include "platform/installer_service.h"

// Group containers and safe harbors.

namespace pallion {

namespace {

Value text(std::string_view value) { return Value::string(std::string(value)); }

std::string textOf(const Value& value) {
  std::string text;
  if (value.asString()) return *value.asString();
  appendDescription(text, value);
  return text;
}

}  // namespace

std::string_view MigrationPlanner::addMove(Dictionary& line, const URL& from, const URL& movedFrom,
                                           const URL& to) {
  const TreeSize size = measureTree(from.fileSystemRepresentation());
  const bool crosses = volumes_.crosses(movedFrom, to);
  volumes_.need(movedFrom, 0, 0);
  volumes_.need(to, crosses ? size.allocated : 0, crosses ? size.entries : 0);
  identity_.add(size.identity);
  line.set(plan::kBytes, Value::unsignedInteger(size.bytes));
  line.set(plan::kEntries, Value::unsignedInteger(size.entries));
  if (size.incomplete) line.set(plan::kIncomplete, Value::boolean(true));
  return crosses ? plan::kCopy : plan::kRename;
}

void MigrationPlanner::planGroups(const std::string& application,
                                  const std::vector<InstallationForecast::Group>& groups) {
  for (const InstallationForecast::Group& group : groups) {
    if (migrator_._groupContainerMap && migrator_._groupContainerMap->get(group.identifier))
      planGroup(application, group);
  }
}

void MigrationPlanner::planGroup(const std::string& application,
                                 const InstallationForecast::Group& group) {
  Dictionary& map = *migrator_._groupContainerMap;
  const GroupEntry entry = groupEntryFor(map, group.identifier,
                                         group.exists ? std::optional(group.place) : std::nullopt);
  const auto reason = [&]() -> const char* {
    switch (entry.state) {
      case GroupEntry::State::kUsable:
        return nullptr;
      case GroupEntry::State::kUnknown:
        return "its entry in the install map is no dictionary";
      case GroupEntry::State::kWithoutPath:
        return "its entry in the install map names no container";
      case GroupEntry::State::kMissing:
        return "its old container is not there";
      case GroupEntry::State::kInsideNew:
        return "its old container lies in the new one";
    }
    return nullptr;
  }();
  Dictionary line = {{plan::kIdentifier, text(group.identifier)},
                     {plan::kApplication, text(application)}};
  const bool hasPath =
      entry.state != GroupEntry::State::kUnknown && entry.state != GroupEntry::State::kWithoutPath;
  if (hasPath) line.set(plan::kPath, text(entry.from.fileSystemRepresentation()));
  const bool listable = !reason && PLFileManager::defaultManager().urlsForItemsInDirectoryAtURL(
                                       entry.from, false, nullptr);
  if (listable) {
    line.set(plan::kAction, text(addMove(line, entry.from, entry.from, group.place)));
    map.remove(group.identifier);
  } else {
    // The next application that names it comes to the same end.
    if (reportedGroups_.count(group.identifier) != 0) return;
    line.set(plan::kAction, text(plan::kSkip));
    line.set(plan::kReason, text(reason ? reason : "its old container can't be listed"));
  }
  reportedGroups_.insert(group.identifier);
  groups_.push_back(Value::dictionary(std::move(line)));
}

void MigrationPlanner::planUnclaimedGroups() {
  if (!migrator_._groupContainerMap) return;
  for (const auto& [key, entry] : *migrator_._groupContainerMap) {
    const std::string identifier = textOf(key);
    if (reportedGroups_.count(identifier) != 0) continue;
    Dictionary line = {{plan::kIdentifier, text(identifier)}};
    const std::string* path =
        entry.asDictionary() ? entry.asDictionary()->getString("Container") : nullptr;
    if (path) line.set(plan::kPath, text(*path));
    line.set(plan::kAction, text(plan::kSkip));
    line.set(plan::kReason, text("no application that is migrated now names it"));
    groups_.push_back(Value::dictionary(std::move(line)));
  }
}

void MigrationPlanner::planHarbors() {
  const URL map = safeHarborMapURL(configuration_);
  if (!migrator_._harborMap) {
    if (PLFileManager::defaultManager().itemDoesNotExistAtURL(map)) return;
    harbors_.push_back(Value::dictionary({{plan::kPath, text(map.fileSystemRepresentation())},
                                          {plan::kAction, text(plan::kSkip)},
                                          {plan::kReason, text("the map can't be read")}}));
    return;
  }
  for (const auto& [key, value] : *migrator_._harborMap) {
    const HarborEntry entry = harborEntryOf(key, value);
    if (entry.state == HarborEntry::State::kUsable) {
      planHarbor(*entry.identifier, *entry.path);
      continue;
    }
    const char* const reason =
        entry.state == HarborEntry::State::kKeyIsNoString  ? "its identifier is no string"
        : entry.state == HarborEntry::State::kNoDictionary ? "its entry is no dictionary"
                                                           : "its entry names no directory";
    harbors_.push_back(Value::dictionary({{plan::kIdentifier, text(textOf(key))},
                                          {plan::kAction, text(plan::kSkip)},
                                          {plan::kReason, text(reason)}}));
  }
}

void MigrationPlanner::planHarbor(const std::string& identifier, const std::string& path) {
  const URL from = URL::fileURL(path, URL::Kind::kDirectory);
  Dictionary line = {{plan::kIdentifier, text(identifier)}, {plan::kPath, text(path)}};
  HarborForecast forecast = InstallerService::current().forecastSafeHarbor(path, identifier);
  if (!forecast.refusal && !forecast.taken &&
      !takenHarbors_.insert(from.fileSystemRepresentation()).second) {
    forecast.refusal = "another harbor of the map stands there";
  }
  if (forecast.refusal) {
    line.set(plan::kAction, text(plan::kRefuse));
    line.set(plan::kReason, text(*forecast.refusal));
    addProblem(path, identifier + ": " + *forecast.refusal);
  } else if (forecast.taken) {
    line.set(plan::kAction, text(plan::kTaken));
  } else {
    const URL parent = from.deletingLastPathComponent();
    line.set(plan::kAction, text(addMove(line, from, parent, forecast.store.value_or(parent))));
  }
  harbors_.push_back(Value::dictionary(std::move(line)));
}

}  // namespace pallion
