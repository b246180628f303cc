#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>

#include "AppMigrator/container_info.h"
#include "AppMigrator/plan.h"
#include "AppMigrator/plan_keys.h"
#include "file_operations/file_manager.h"
#include "platform/item_status.h"

namespace pallion {

namespace {

Value text(std::string_view value) { return Value::string(std::string(value)); }

std::string joined(const std::vector<std::string>& names) {
  std::string all;
  for (const std::string& name : names) all += (all.empty() ? "" : ", ") + name;
  return all;
}

Value texts(const std::vector<std::string>& values) {
  Value::Array array;
  for (const std::string& value : values) array.push_back(text(value));
  return Value::array(std::move(array));
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

std::string reasonOf(const Dictionary& refusal) {
  const std::string* description = refusal.getString("ErrorDescription");
  const std::string* detail = refusal.getString("ErrorDetail");
  std::string reason = description ? *description : "refused";
  if (detail && !detail->empty()) reason += ": " + *detail;
  return reason;
}

// What a directory of ours will find in its place: a link is taken away before.
enum class Standing { kNothing, kDirectory, kOther };
Standing standingAt(const URL& url) {
  ItemStatus status;
  const bool found = readStatus({AT_FDCWD, url.fileSystemRepresentation()}, status);
  if (!found || S_ISLNK(status.mode)) return Standing::kNothing;
  return S_ISDIR(status.mode) ? Standing::kDirectory : Standing::kOther;
}

bool isEmptyDirectory(const URL& url) {
  const auto entries =
      PLFileManager::defaultManager().urlsForItemsInDirectoryAtURL(url, false, nullptr);
  return entries && entries->empty();
}

}  // namespace

bool MigrationPlanner::stay(Item& item, std::string reason) const {
  item.line.set(plan::kReason, Value::string(std::move(reason)));
  item.stays = true;
  return false;
}

void MigrationPlanner::planContainer(Item& item, const QueuedContainer& queued) {
  const Dictionary& info = queued.info;
  const URL bundle = URL::fileURL(*info.getString(kBundlePathKey), URL::Kind::kDirectory);
  const std::string identifier = *info.getString(kBundleIdentifierKey);
  item.line.set(plan::kIdentifier, text(identifier));
  item.line.set(plan::kContainerType, info.get(kContainerTypeKey));
  identity_.addItem(bundle.appending("Info.plist", URL::Kind::kFile).fileSystemRepresentation());
  for (const std::string_view name : {kMigrationMarkerName, kStagingName}) {
    if (contains(item.entries, std::string(name)))
      identity_.addItem(item.url.appending(name, URL::Kind::kFile).fileSystemRepresentation());
  }

  bool succeeds = planRecord(item, info, bundle);
  if (!succeeds) {
    for (const std::string& name : configuration_.appUserDataItemNames()) {
      if (contains(item.entries, name)) addUserData(item, name, plan::kLeave);
    }
    finish(item, false);
    return;
  }
  InstallationForecast forecast;
  if (PLFileManager::defaultManager().bundleAtURLIsPlaceholder(bundle)) {
    forecast =
        AppWorkspace::defaultWorkspace().forecastInstallation({identifier, false, {}, "", {}});
    item.line.set(plan::kInstallation, text("placeholder only"));
    succeeds = !forecast.dataContainer || planUserData(item, *forecast.dataContainer);
    std::vector<std::string> discarded = leftOver(item, {bundle.lastPathComponent()});
    if (succeeds && !discarded.empty()) item.line.set(plan::kDiscarded, texts(discarded));
  } else {
    succeeds = planBundle(item, info, forecast);
  }
  finish(item, succeeds);
}

bool MigrationPlanner::planRecord(Item& item, const Dictionary& info, const URL& bundle) {
  const std::string& identifier = *info.getString(kBundleIdentifierKey);
  AppWorkspace& registry = AppWorkspace::defaultWorkspace();
  if (*info.getString(kContainerTypeKey) == kContainerTypeApp &&
      installedBefore_.count(identifier) == 0 && !registry.applicationIsInstalled(identifier)) {
    InstallationQuestion question;
    question.identifier = identifier;
    question.placeholder = true;
    question.bundles = {{item.url.fileSystemRepresentation(), bundle.lastPathComponent()}};
    const InstallationForecast forecast = registry.forecastInstallation(question);
    if (forecast.refusal) {
      return stay(item, "no placeholder can be installed: " + reasonOf(*forecast.refusal));
    }
    item.line.set(plan::kInstallation, text("new"));
    return true;
  }
  item.line.set(plan::kInstallation, text("known to the registry"));
  if (registryProblem_) return stay(item, "there is no record: " + *registryProblem_);
  if (!BundleProxy::bundleProxyForIdentifier(identifier)) {
    return stay(item, "the registry gives no record for its identifier");
  }
  return true;
}

bool MigrationPlanner::planUserData(Item& item, const URL& dataContainer) {
  bool moves = true;
  const bool crosses = volumes_.crosses(item.url, dataContainer);
  volumes_.need(item.url, 0, 1);
  for (const std::string& name : configuration_.appUserDataItemNames()) {
    if (!contains(item.entries, name)) continue;
    const TreeSize size =
        addUserData(item, name, moves ? (crosses ? plan::kCopy : plan::kRename) : plan::kLeave);
    if (!moves) continue;
    if (size.isMountRoot && !crosses) moves = stay(item, name + " is a mount point");
    if (size.incomplete && crosses) moves = stay(item, name + " can't be read whole");
    if (moves && crosses) volumes_.need(dataContainer, size.allocated, size.entries);
  }
  return moves;
}

// What will stand in the staging directory, where it stands now; `staged` gets the names that leave
// the container for it. A `failure` is one of the staging itself.
InstallationQuestion MigrationPlanner::questionFor(const Item& item, const Dictionary& info,
                                                   std::vector<std::string>& staged,
                                                   std::string& failure) const {
  const PLFileManager& files = PLFileManager::defaultManager();
  const URL staging = item.url.appending(kStagingName, URL::Kind::kDirectory);
  const URL payload = staging.appending("Payload", URL::Kind::kDirectory);
  InstallationQuestion question;
  question.identifier = *info.getString(kBundleIdentifierKey);
  const auto before = installedBefore_.find(question.identifier);
  if (before != installedBefore_.end()) question.installedBefore = before->second;

  const std::vector<std::string> userData = configuration_.appUserDataItemNames();
  std::vector<std::string> names;
  for (const std::string_view key : {kBundlePathKey, kSecondBundlePathKey}) {
    const std::string* path = info.getString(key);
    if (!path) continue;
    const std::string name = URL::fileURL(*path).lastPathComponent();
    if (name == "." || name == "..") failure = "\"" + name + "\" is no plain name";
    if (name == kStagingName) failure = "a bundle is named like the staging directory";
    // A marker may name what is no bundle at all.
    if (contains(item.entries, name) && !contains(userData, name)) names.push_back(name);
  }
  Standing place = Standing::kNothing;
  if (contains(item.entries, std::string(kStagingName))) place = standingAt(staging);
  if (place == Standing::kOther) failure = "what stands at Staging is no directory";
  if (place == Standing::kDirectory) {
    question.staging = staging.fileSystemRepresentation();
    place = standingAt(payload);
  }
  if (place == Standing::kDirectory) {
    const auto present = files.urlsForItemsInDirectoryAtURL(payload, false, nullptr);
    for (const URL& url : present ? *present : std::vector<URL>()) {
      const std::string name = url.lastPathComponent();
      if (!contains(names, name)) {
        question.bundles.emplace_back(payload.fileSystemRepresentation(), name);
      } else if (!isEmptyDirectory(url)) {
        failure = name + " stands in Staging/Payload already";
      }
    }
  } else if (place == Standing::kOther && failure.empty()) {
    failure = "what stands at Staging/Payload is no directory";
  }
  for (const std::string& name : names) {
    question.bundles.emplace_back(item.url.fileSystemRepresentation(), name);
  }
  staged = std::move(names);
  staged.emplace_back(kStagingName);
  return question;
}

bool MigrationPlanner::planBundle(Item& item, const Dictionary& info,
                                  InstallationForecast& forecast) {
  std::vector<std::string> staged;
  std::string failure;
  const InstallationQuestion question = questionFor(item, info, staged, failure);
  forecast = AppWorkspace::defaultWorkspace().forecastInstallation(question);
  if (forecast.dataContainer && !planUserData(item, *forecast.dataContainer)) return false;

  bool isOlder = false;
  if (forecast.refusal && failure.empty()) {
    isOlder = forecast.refusal->get("Error") == text(kAppAlreadyInstalledError);
    if (isOlder)
      item.line.set(plan::kInstallation, text("the system has a newer version built in"));
    if (!isOlder) failure = reasonOf(*forecast.refusal);
  }
  if (!failure.empty()) {
    item.line.set(plan::kInstallation, text("refused"));
    item.line.set(plan::kReason, text("the bundle can't be installed: " + failure));
    if (const auto discarded = leftOver(item, staged); !discarded.empty())
      item.line.set(plan::kDiscarded, texts(discarded));
    return false;
  }
  if (!isOlder) {
    for (const auto& [directory, name] : question.bundles) {
      identity_.addItem(directory + "/" + name + "/Info.plist");
      if (!forecast.bundleContainers || !volumes_.crosses(item.url, *forecast.bundleContainers))
        continue;
      const TreeSize size = measureTree(directory + "/" + name);
      volumes_.need(*forecast.bundleContainers, size.allocated, size.entries);
    }
    const bool isPlugin =
        !question.bundles.empty() &&
        URL::fileURL("/" + question.bundles.front().second).pathExtension() == "vpnplugin";
    if (!question.bundles.empty()) {
      installedBefore_[question.identifier] = std::string(
          isPlugin && question.bundles.size() == 1 ? kContainerTypeVPNBundle : kContainerTypeApp);
    }
    if (!forecast.plugin.empty())
      installedBefore_[forecast.plugin] = std::string(kContainerTypeVPNBundle);
  }
  if (migrator_.installMapIsUnreadable_) {
    return stay(item, "the old install map can't be read, so its groups are not known");
  }
  planGroups(question.identifier, forecast.groups);
  const std::vector<std::string> missed = leftOver(item, staged);
  if (missed.empty()) return true;
  item.line.set(plan::kMissed, texts(missed));
  return stay(item, "nothing moves " + joined(missed));
}

std::vector<std::string> MigrationPlanner::leftOver(const Item& item,
                                                    const std::vector<std::string>& staged) const {
  const std::vector<std::string> userData = configuration_.appUserDataItemNames();
  const std::vector<std::string> metadata = configuration_.appBundleMetadataItemNames();
  std::vector<std::string> names;
  for (const std::string& name : item.entries) {
    if (countsAsMissed(name) && !contains(userData, name) && !contains(metadata, name) &&
        !contains(staged, name)) {
      names.push_back(name);
    }
  }
  return names;
}

}  // namespace pallion
