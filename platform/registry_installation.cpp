#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/bundle.h"
#include "platform/embedded_registry.h"
#include "platform/product_log.h"
#include "platform/staged_package.h"
#include "platform/tree_copy.h"
#include "platform/uuid.h"

// Installation of staged bundles.

namespace pallion {

namespace {

constexpr const char* kInstall = "-[Registry installApplication:withOptions:error:usingBlock:]";

using Kind = RegistryContainers::Kind;

Refusal notTaken(const std::string& path, int errorNumber) {
  return {RegistryErrorCode::kInstallation, "Taking over " + path, errorNumber, ""};
}

// Renames an item over another one of any kind. 0 or an errno.
int replaceItem(const std::string& from, const std::string& to) {
  if (rename(from.c_str(), to.c_str()) == 0) return 0;
  // A directory with content, and an item of another kind, have to go first.
  if (errno != ENOTEMPTY && errno != EEXIST && errno != EISDIR && errno != ENOTDIR) return errno;
  const int failed = removeTree(to);
  if (failed != 0) return failed;
  return rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

// A staging directory on its way into Incoming. It goes back to where it was unless it is kept.
class TakenOver {
 public:
  TakenOver(const RegistryContainers& containers, std::string staging)
      : containers_(containers), staging_(std::move(staging)), uuid_(makeUUID()) {}
  TakenOver(const TakenOver&) = delete;
  TakenOver& operator=(const TakenOver&) = delete;
  ~TakenOver() {
    if (!taken_) return;
    const std::string incoming = containers_.incoming(Kind::kBundle, uuid_);
    // A copy gets the name of something incomplete before it is removed.
    const std::string back = copied_ ? containers_.incoming(Kind::kCopy, uuid_) : staging_;
    if (renameat2(AT_FDCWD, incoming.c_str(), AT_FDCWD, back.c_str(), RENAME_NOREPLACE) != 0) {
      LogWrite(kLogError, kInstall, "Failed to move %s back to %s: %s", incoming, back,
               strerrordesc_np(errno));
    } else if (copied_) {
      removeTree(back);
    }
  }

  Outcome take(const StagedPackage& package, uint64_t installType) {
    const std::string incoming = containers_.incoming(Kind::kBundle, uuid_);
    if (rename(staging_.c_str(), incoming.c_str()) != 0) {
      if (errno != EXDEV) return notTaken(staging_, errno);
      copied_ = true;
      if (Outcome failed = copy(package, installType)) {
        removeTree(containers_.incoming(Kind::kCopy, uuid_));
        return failed;
      }
    }
    taken_ = true;
    return std::nullopt;
  }

  // The installation is recorded.
  void keep() {
    taken_ = false;
    if (!copied_) return;
    const int failed = takeAway(staging_, kInstall);
    if (failed != 0)
      LogWrite(kLogError, kInstall, "Failed to remove %s: %s", staging_, strerrordesc_np(failed));
  }

  [[nodiscard]] const std::string& uuid() const { return uuid_; }

 private:
  Outcome copy(const StagedPackage& package, uint64_t installType) {
    const std::string to = containers_.incoming(Kind::kCopy, uuid_);
    if (TreeCopy::current().copy(staging_.c_str(), to.c_str()) != 0)
      return notTaken(staging_, errno);
    if (Outcome failed = setInstallTypes(to, package, installType)) return failed;
    if (TreeCopy::current().syncVolume(to.c_str()) != 0) return notTaken(staging_, errno);
    const std::string incoming = containers_.incoming(Kind::kBundle, uuid_);
    if (rename(to.c_str(), incoming.c_str()) != 0) return notTaken(staging_, errno);
    return std::nullopt;
  }

  const RegistryContainers& containers_;
  std::string staging_;
  std::string uuid_;
  bool taken_ = false;
  bool copied_ = false;
};

}  // namespace

bool EmbeddedRegistry::installApplication(const URL& url, const Dictionary& options, Error* error,
                                          const StatusBlock& block) {
  Outcome refused;
  {
    const std::lock_guard guard(mutex_);
    refused = install(url, options);
  }
  if (!refused) return true;
  if (refused->code == RegistryErrorCode::kDatabase)
    LogWrite(kLogError, kInstall, "%s", refused->text());
  if (block) block(refused->status());
  if (error) *error = refused->error();
  return false;
}

Outcome EmbeddedRegistry::install(const URL& url, const Dictionary& options) {
  const std::string* identifier = options.getString(kQXBundleIdentifier);
  if (!identifier || !isPlainName(*identifier)) {
    return Refusal{RegistryErrorCode::kOptions, "Options for " + url.path(), 0,
                   "name no usable bundle identifier"};
  }
  if (Outcome failed = openForWriting()) return failed;
  const std::string* package = options.getString(kAppPackageTypeKey);
  if (package && *package == kAppPackageTypePlaceholder)
    return installPlaceholder(url, *identifier, options);
  if (package && *package == kAppPackageTypeCustomer) {
    return installPackage(url.fileSystemRepresentation(), *identifier,
                          options.get(kAppInstallTypeKey).uint64Value());
  }
  return Refusal{RegistryErrorCode::kOptions, "Options for " + url.path(), 0,
                 "name no known package type"};
}

Outcome EmbeddedRegistry::installPackage(const std::string& staging, const std::string& identifier,
                                         uint64_t installType) {
  StagedPackage package;
  if (Outcome uninstallable = inspectPackage(staging, package)) return uninstallable;
  std::optional<BundleRow> row;
  if (!database_->findBundle(identifier, row)) return database_->failure();
  const BundleFacts* builtIn = nullptr;
  if (Outcome unreadable = builtIns_.find(identifier, builtIn)) return unreadable;

  Outcome refused = judgePackage(package, identifier, staging, row ? &*row : nullptr, builtIn);
  if (refused && refused->code == RegistryErrorCode::kOlderThanBuiltIn) {
    const int failed = takeAway(staging, kInstall);
    if (failed != 0)
      LogWrite(kLogError, kInstall, "Failed to remove %s: %s", staging, strerrordesc_np(failed));
  }
  if (refused) return refused;
  if (!package.main) {
    if (row && row->isReal()) return takeLateMetadata(staging, row->container);
    // Its metadata went the same way when the older bundle was refused.
    const int failed = takeAway(staging, kInstall);
    return failed == 0 ? std::nullopt : Outcome(notTaken(staging, failed));
  }

  if (Outcome failed = setInstallTypes(staging, package, installType)) return failed;
  TakenOver taken(containers_, staging);
  if (Outcome failed = taken.take(package, installType)) return failed;
  if (Outcome failed = recordPackage(package, taken.uuid(), kInstall)) return failed;
  taken.keep();
  return std::nullopt;
}

// What follows the taking over, also of one that was interrupted there.
Outcome EmbeddedRegistry::recordPackage(const StagedPackage& package, const std::string& uuid,
                                        const char* function) {
  RegistryChange recording = change(function);
  if (Outcome failed = recording.begin()) return failed;
  std::vector<std::string> bundles = {package.main->name};
  if (package.plugin) bundles.push_back(package.plugin->name);
  recording.adopt(Kind::kBundle, uuid, std::move(bundles));
  if (Outcome failed = recordBundle(recording, *package.main, uuid)) return failed;
  if (package.plugin && hasRecordOfItsOwn(package)) {
    std::optional<BundleRow> row;
    if (!database_->findBundle(package.plugin->identifier, row)) return database_->failure();
    if (row && row->hasBundle() && row->type != bundleTypeOf(package.plugin->name)) {
      LogWrite(kLogError, function, "Plug-in %s has no record of its own: %s is installed as %s",
               package.plugin->name, row->identifier, row->type);
    } else if (Outcome failed = recordBundle(recording, *package.plugin, uuid)) {
      return failed;
    }
  }
  return recording.commit();
}

Outcome EmbeddedRegistry::recordBundle(RegistryChange& recording, const BundleFacts& facts,
                                       const std::string& uuid) {
  std::optional<BundleRow> row;
  if (!database_->findBundle(facts.identifier, row)) return database_->failure();
  const BundleRow before = row.value_or(BundleRow());
  BundleRow now{facts.identifier, bundleTypeOf(facts.name), before.data, uuid, facts.name, false,
                facts.version};
  if (Outcome failed = recording.storeBundle(now)) return failed;
  if (Outcome failed = recording.storeGroups(facts.identifier, facts.groups)) return failed;
  if (!before.hasBundle() || before.container == uuid) return std::nullopt;
  // An application and the plug-in beside it share a container; it goes when both have left it.
  bool used = false;
  if (!before.placeholder && !database_->isBundleContainerUsed(before.container, used))
    return database_->failure();
  if (used) return std::nullopt;
  return recording.storeTrash({before.container, TrashRow::Kind::kBundleContainer, uuid});
}

// A repeated installation, whose bundle was taken over the first time: whatever else the staging
// directory holds goes beside the bundle, in place of older items of those names.
Outcome EmbeddedRegistry::takeLateMetadata(const std::string& staging,
                                           const std::string& container) {
  const std::string place = containers_.place(Kind::kBundle, container);
  const std::optional<std::vector<std::string>> names = namesInDirectory(staging);
  if (!names) return notTaken(staging, errno);
  bool moved = false;
  for (const std::string& name : *names) {
    if (name == "Payload") continue;
    const std::string from = staging + "/" + name;
    if (bundleTypeOf(name)) return notTaken(from, EEXIST);  // never over a bundle
    int failed = replaceItem(from, place + "/" + name);
    if (failed == EXDEV) failed = replaceItemAcrossVolumes(from, place + "/" + name);
    if (failed != 0) return notTaken(from, failed);
    moved = true;
  }
  if (moved && TreeCopy::current().syncVolume(place.c_str()) != 0) return notTaken(staging, errno);
  const int failed = takeAway(staging, kInstall);
  return failed == 0 ? std::nullopt : Outcome(notTaken(staging, failed));
}

int EmbeddedRegistry::replaceItemAcrossVolumes(const std::string& from,
                                               const std::string& to) const {
  const std::string copy = containers_.incoming(Kind::kCopy, makeUUID());
  TreeCopy& copier = TreeCopy::current();
  const bool copied =
      copier.copy(from.c_str(), copy.c_str()) == 0 && copier.syncVolume(copy.c_str()) == 0;
  const int failed = copied ? replaceItem(copy, to) : errno;
  if (failed != 0) removeTree(copy);
  return failed;
}

}  // namespace pallion
