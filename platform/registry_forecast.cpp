#include <algorithm>
#include <cerrno>
#include <sys/stat.h>

#include "platform/embedded_registry.h"
#include "platform/staged_package.h"

// What installations and registrations will come to. Nothing is changed here; the judgements are
// those of the real thing, and what the registry will complete on opening counts as completed.

namespace pallion {

namespace {

URL directoryURL(const std::string& path) { return URL::fileURL(path, URL::Kind::kDirectory); }

}  // namespace

Outcome EmbeddedRegistry::judgeIdentifier(const BundleFacts& facts, const std::string& identifier,
                                          const std::string& bundlePath) {
  if (facts.identifier == identifier) return std::nullopt;
  return Refusal{RegistryErrorCode::kPackageInspection, bundlePath, 0,
                 facts.identifier.empty() ? "has no Info.plist with an identifier"
                                          : "has the identifier " + facts.identifier};
}

Outcome EmbeddedRegistry::judgePackage(const StagedPackage& package, const std::string& identifier,
                                       const std::string& staging, const BundleRow* row,
                                       const BundleFacts* builtIn) {
  if (!package.main) {
    if (builtIn || (row && row->isReal())) return std::nullopt;
    return Refusal{RegistryErrorCode::kPackageInspection, staging, 0, "holds no bundle"};
  }
  const BundleFacts& main = *package.main;
  if (Outcome refused = judgeIdentifier(main, identifier, package.mainPath)) return refused;
  if (Outcome refused = checkExecutable(package.mainPath, main)) return refused;
  if (row && row->isReal() && row->type != bundleTypeOf(main.name)) {
    return Refusal{RegistryErrorCode::kIdentifierInUse, package.mainPath, 0,
                   identifier + " is installed as " + row->type};
  }
  if (builtIn && compareVersions(main.version, builtIn->version) < 0) {
    return Refusal{
        RegistryErrorCode::kOlderThanBuiltIn, package.mainPath, 0,
        "version " + main.version + " is older than the built-in version " + builtIn->version};
  }
  return std::nullopt;
}

// A registry that is only read does not change under its reader's eyes.
Outcome EmbeddedRegistry::openForForecast() {
  if (!openedForForecast_) {
    openedForForecast_ = open();
    if (!*openedForForecast_ && !database_) openedForForecast_ = judgeEmptyDatabase();
  }
  return *openedForForecast_;
}

std::optional<std::string> EmbeddedRegistry::forecastContainerDataProtection() {
  const std::lock_guard guard(mutex_);
  const Outcome failed = openForForecast();
  return failed ? std::optional(failed->text()) : std::nullopt;
}

InstallationForecast EmbeddedRegistry::forecastInstallation(const InstallationQuestion& question) {
  const std::lock_guard guard(mutex_);
  InstallationForecast answer;
  answer.dataContainer = directoryURL(containers_.place(Kind::kData, ""));
  answer.bundleContainers = directoryURL(containers_.place(Kind::kBundle, ""));
  if (const Outcome refused = forecast(question, answer)) answer.refusal = refused->status();
  return answer;
}

Outcome EmbeddedRegistry::forecast(const InstallationQuestion& question,
                                   InstallationForecast& answer) {
  const std::string& identifier = question.identifier;
  if (!isPlainName(identifier)) {
    return Refusal{RegistryErrorCode::kOptions, "Options for " + identifier, 0,
                   "name no usable bundle identifier"};
  }
  if (Outcome failed = openForForecast()) return failed;
  std::optional<BundleRow> row;
  if (database_ && !database_->findBundle(identifier, row)) return database_->failure();
  if (row) answer.dataContainer = directoryURL(containers_.place(Kind::kData, row->data));
  if (!question.placeholder) return forecastPackage(question, std::move(row), answer);

  // The placeholder will have the bundle's identifier, and a name made of the one that was asked
  // for.
  const auto& [directory, name] = question.bundles.front();
  const std::string path = directory + "/" + name;
  if (!isPlainName(identifier + ".app")) {
    return Refusal{RegistryErrorCode::kPackageInspection, path, 0,
                   "has an identifier that is too long"};
  }
  BundleFacts facts;
  if (Outcome refused = readBundleFacts(directory, name, facts)) return refused;
  if (Outcome refused = judgeIdentifier(facts, identifier, path)) return refused;
  const BundleFacts* builtIn = nullptr;
  return builtIns_.find(identifier, builtIn);
}

Outcome EmbeddedRegistry::forecastPackage(const InstallationQuestion& question,
                                          std::optional<BundleRow> row,
                                          InstallationForecast& answer) {
  const std::string& identifier = question.identifier;
  if (Outcome failed = readInterruptedPackages()) return failed;
  const auto completed =
      std::find_if(interruptedBundles_->begin(), interruptedBundles_->end(),
                   [&](const BundleFacts& facts) { return facts.identifier == identifier; });
  const bool isCompleted = completed != interruptedBundles_->end();
  std::vector<GroupRow> recorded;
  if (row && !database_->groupsOfBundle(identifier, recorded)) return database_->failure();
  if (isCompleted || question.installedBefore) {
    const char* type = isCompleted ? bundleTypeOf(completed->name) : nullptr;
    if (!row) row.emplace();
    row->type = type ? type : *question.installedBefore;
    row->container = "the one to come";
    row->placeholder = false;
  }

  StagedPackage package;
  if (Outcome refused = inspectBundles(question.bundles, question.staging, package)) return refused;
  const BundleFacts* builtIn = nullptr;
  if (Outcome unreadable = builtIns_.find(identifier, builtIn)) return unreadable;
  Outcome refused =
      judgePackage(package, identifier, question.staging, row ? &*row : nullptr, builtIn);
  std::vector<std::string> groups;
  if (package.main && !refused) {
    groups = package.main->groups;
  } else if (isCompleted) {
    groups = completed->groups;
  } else if (row) {
    for (const GroupRow& group : recorded) groups.push_back(group.identifier);
  } else if (builtIn) {
    groups = builtIn->groups;
  }
  if (Outcome failed = forecastGroups(groups, answer)) return failed;
  if (refused) return refused;
  if (!package.main || !package.plugin || !hasRecordOfItsOwn(package)) return std::nullopt;
  std::optional<BundleRow> before;
  const std::string& plugin = package.plugin->identifier;
  if (database_ && !database_->findBundle(plugin, before)) return database_->failure();
  const bool inUse =
      before && before->hasBundle() && before->type != bundleTypeOf(package.plugin->name);
  if (!inUse) answer.plugin = plugin;
  return std::nullopt;
}

Outcome EmbeddedRegistry::forecastGroups(const std::vector<std::string>& groups,
                                         InstallationForecast& answer) {
  for (const std::string& group : groups) {
    std::optional<std::string> container;
    if (database_ && !database_->findGroup(group, container)) return database_->failure();
    answer.groups.push_back({group,
                             directoryURL(containers_.place(Kind::kGroup, container.value_or(""))),
                             container.has_value()});
  }
  auto& all = answer.groups;
  std::sort(all.begin(), all.end(),
            [](const auto& a, const auto& b) { return a.identifier < b.identifier; });
  all.erase(std::unique(all.begin(), all.end(),
                        [](const auto& a, const auto& b) { return a.identifier == b.identifier; }),
            all.end());
  return std::nullopt;
}

Outcome EmbeddedRegistry::readInterruptedPackages() {
  if (interruptedBundles_) return std::nullopt;
  std::vector<BundleFacts> bundles;
  const auto entries = containers_.listIncoming();
  if (!entries && errno != ENOENT && errno != ENOTDIR) {
    return Refusal{RegistryErrorCode::kDatabase, "Listing " + containers_.incomingDirectory(),
                   errno, ""};
  }
  for (const auto& entry : entries ? *entries : std::vector<RegistryContainers::IncomingEntry>()) {
    if (!entry.container || entry.container->first != Kind::kBundle) continue;
    bool recorded = false;
    if (database_ && !database_->isBundleContainerUsed(entry.container->second, recorded))
      return database_->failure();
    StagedPackage package;
    if (recorded ||
        inspectPackage(containers_.incoming(Kind::kBundle, entry.container->second), package)) {
      continue;
    }
    if (!package.main || package.main->identifier.empty()) continue;
    if (package.plugin && hasRecordOfItsOwn(package)) bundles.push_back(*package.plugin);
    bundles.push_back(std::move(*package.main));
  }
  interruptedBundles_ = std::move(bundles);
  return std::nullopt;
}

HarborForecast EmbeddedRegistry::forecastSafeHarbor(const std::string& path,
                                                    const std::string& identifier) {
  const std::lock_guard guard(mutex_);
  HarborForecast answer;
  answer.store = directoryURL(containers_.harborDirectory());
  Outcome refused = judgeHarborIdentifier(path, identifier);
  if (!refused) refused = openForForecast();
  const std::string source = URL::fileURL(path).fileSystemRepresentation();
  std::vector<HarborRow> pending;
  if (!refused && database_ && !database_->allPendingHarbors(pending))
    refused = database_->failure();
  if (!refused) refused = judgeHarbor(source, identifier, answer.taken);
  struct stat status {};
  for (const HarborRow& row : pending) {
    const bool moved =
        row.identifier == identifier && row.source == source && refused &&
        refused->errorNumber == ENOENT &&
        lstat((containers_.harborDirectory() + "/" + row.uuid).c_str(), &status) == 0;
    if (!moved) continue;
    refused.reset();
    answer.taken = true;
  }
  if (refused) answer.refusal = refused->text();
  return answer;
}

}  // namespace pallion
