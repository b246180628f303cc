#include "AppMigrator/plan.h"

#include <algorithm>

#include "AppMigrator/harbor_entry.h"
#include "AppMigrator/plan_keys.h"
#include "file_operations/file_manager.h"
#include "platform/installer_service.h"

namespace pallion {

namespace {

// What a run writes besides what it copies: registry and its log, and for an application its
// directories, its placeholder with the icon, and the marker.
constexpr uint64_t kBytesOfRun = uint64_t{1} << 20;
constexpr uint64_t kBytesOfApplication = uint64_t{128} << 10;
constexpr uint64_t kFilesOfApplication = 16;

Value text(std::string_view value) { return Value::string(std::string(value)); }

Value texts(const std::vector<std::string>& values) {
  Value::Array array;
  for (const std::string& value : values) array.push_back(text(value));
  return Value::array(std::move(array));
}

std::vector<std::string> namesOf(const std::vector<URL>& urls) {
  std::vector<std::string> names;
  names.reserve(urls.size());
  for (const URL& url : urls) names.push_back(url.lastPathComponent());
  return names;
}

}  // namespace

MigrationPlanner::MigrationPlanner(const PLGlobalConfiguration& configuration)
    : configuration_(configuration), migrator_(configuration) {}

std::optional<Dictionary> PLAppMigrator::migrationPlan() {
  return MigrationPlanner(configuration_).plan();
}

Dictionary MigrationPlanner::plan() {
  const URL containers = configuration_.oldContainerPath();
  Dictionary result;
  bool nothingButLinks = false;
  std::string problem;
  if (!migrator_.readInventory(nothingButLinks, &problem)) {
    addProblem(containers.fileSystemRepresentation(), "can't be listed: " + problem);
    result.set(plan::kNoMigrator, text(problem));
  } else {
    migrator_.readHarborMap();
    for (const URL& input :
         {containers, configuration_.oldInstallMapPath(), safeHarborMapURL(configuration_)}) {
      identity_.addItem(input.fileSystemRepresentation());
    }
    registryProblem_ = InstallerService::current().forecastContainerDataProtection();
    if (migrator_._itemsToMigrate) planItems();
    planLinks(nothingButLinks);
    planUnclaimedGroups();
    planHarbors();
    if (registryProblem_) addProblem("", "data protection can't be updated: " + *registryProblem_);
  }

  const bool nothing = containers_.empty() && harbors_.empty() && !result.get(plan::kNoMigrator);
  for (const Value::Array* lines : {&containers_, &groups_, &harbors_}) {
    for (const Value& line : *lines) identity_.add(line);
  }
  result.set(plan::kVolumes, Value::array(volumes_.describe(problems_)));
  result.set(plan::kId, text(identity_.finishText()));
  result.set(plan::kResult, Value::boolean(problems_.empty()));
  result.set(plan::kNothingToMigrate, Value::boolean(nothing));
  result.set(plan::kContainers, Value::array(std::move(containers_)));
  result.set(plan::kGroups, Value::array(std::move(groups_)));
  result.set(plan::kHarbors, Value::array(std::move(harbors_)));
  result.set(plan::kProblems, Value::array(std::move(problems_)));
  return result;
}

void MigrationPlanner::addProblem(std::string_view path, std::string_view reason) {
  Dictionary line;
  if (!path.empty()) line.set(plan::kPath, text(path));
  line.set(plan::kReason, text(reason));
  problems_.push_back(Value::dictionary(std::move(line)));
}

// The two passes of a run over its inventory.
void MigrationPlanner::planItems() {
  ContainerQueue queue;
  std::map<std::string, Item> queued;  // by path
  for (const URL& url : *migrator_._itemsToMigrate) {
    Item item{url, {}, {{plan::kPath, text(url.fileSystemRepresentation())}}, {}, false};
    identity_.addItem(url.fileSystemRepresentation());
    ContainerVerdict verdict;
    if (isApplicationsLocationNote(url)) {
      verdict.fate = ContainerFate::kRemoved;
      verdict.reason = "is the note on where applications went";
    } else {
      ContainerListing listing = listContainer(url);
      if (listing.entries) {
        verdict = migrator_.classifyContainer(url, *listing.entries);
        item.entries = namesOf(*listing.entries);
        if (!listing.setAside.empty())
          item.line.set(plan::kSwept, texts(namesOf(listing.setAside)));
      } else {
        verdict = std::move(listing.verdict);
      }
    }
    if (verdict.fate == ContainerFate::kMigrated) {
      item.line.set(plan::kAction, text(plan::kMigrate));
      item.line.set(plan::kResumed, Value::boolean(verdict.resumed));
      queued.emplace(url.path(), std::move(item));
      enqueueContainer(queue, {url, std::move(*verdict.info)}, verdict.orderEarly);
      continue;
    }
    if (verdict.fate == ContainerFate::kGone) continue;
    item.stays = verdict.fate == ContainerFate::kLeftAlone;
    const std::string_view action = item.stays ? plan::kLeave : plan::kRemove;
    item.line.set(plan::kAction, text(action));
    item.line.set(plan::kReason, text(verdict.reason));
    for (const std::string& name : configuration_.appUserDataItemNames()) {
      const auto& entries = item.entries;
      if (std::find(entries.begin(), entries.end(), name) != entries.end())
        addUserData(item, name, action);
    }
    finish(item, true);
  }
  if (!queue.empty()) {
    volumes_.need(configuration_.dataDirectoryPath(), kBytesOfRun, kFilesOfApplication);
  }
  std::set<std::string> begun;
  for (const QueuedContainer& container : queue) {
    Item& item = queued.at(container.url.path());
    const Objection objection = objectionTo(container, begun);
    if (objection == Objection::kNone) {
      volumes_.need(configuration_.dataDirectoryPath(), kBytesOfApplication, kFilesOfApplication);
      planContainer(item, container);
      continue;
    }
    item.line.set(plan::kReason, text(objection == Objection::kSpeaksOfAnotherPlace
                                          ? "its migration marker speaks of another place"
                                          : "another container of its identifier is migrated"));
    item.stays = true;
    finish(item, false);
  }
}

// Links among the containers are no items, but the last look of a run finds them.
void MigrationPlanner::planLinks(bool areRemoved) {
  std::set<std::string> inventory;
  if (migrator_._itemsToMigrate) {
    for (const URL& url : *migrator_._itemsToMigrate) inventory.insert(url.path());
  }
  const auto all = PLFileManager::defaultManager().urlsForItemsInDirectoryAtURL(
      configuration_.oldContainerPath(), false, nullptr);
  for (const URL& url : all ? *all : std::vector<URL>()) {
    if (inventory.count(url.path()) != 0) continue;
    Item item{url, {}, {{plan::kPath, text(url.fileSystemRepresentation())}}, {}, !areRemoved};
    item.line.set(plan::kAction, text(areRemoved ? plan::kRemove : plan::kLeave));
    item.line.set(plan::kReason, text(areRemoved ? "is a symbolic link, like all there is"
                                                 : "is a symbolic link"));
    finish(item, true);
  }
}

TreeSize MigrationPlanner::addUserData(Item& item, const std::string& name,
                                       std::string_view action) {
  const TreeSize size =
      measureTree(item.url.appending(name, URL::Kind::kFile).fileSystemRepresentation());
  Dictionary line = {{plan::kName, text(name)},
                     {plan::kAction, text(action)},
                     {plan::kBytes, Value::unsignedInteger(size.bytes)},
                     {plan::kEntries, Value::unsignedInteger(size.entries)}};
  if (size.incomplete) line.set(plan::kIncomplete, Value::boolean(true));
  item.userData.push_back(Value::dictionary(std::move(line)));
  identity_.add(size.identity);
  return size;
}

void MigrationPlanner::finish(Item& item, bool succeeds) {
  const std::string* identifier = item.line.getString(plan::kIdentifier);
  const bool isMigrated = *item.line.getString(plan::kAction) == plan::kMigrate;
  if (isMigrated) item.line.set(plan::kSucceeds, Value::boolean(succeeds));
  item.line.set(plan::kIsRemoved, Value::boolean(!item.stays));
  item.line.set(plan::kItems, Value::array(std::move(item.userData)));
  if (item.stays || !succeeds) {
    const std::string* reason = item.line.getString(plan::kReason);
    addProblem(item.url.fileSystemRepresentation(),
               (identifier ? *identifier + ": " : std::string()) + (reason ? *reason : "stays"));
  }
  containers_.push_back(Value::dictionary(std::move(item.line)));
}

}  // namespace pallion
