#include <cerrno>
#include <cstring>
#include <set>
#include <sys/stat.h>

#include "platform/embedded_registry.h"
#include "platform/product_log.h"
#include "platform/staged_package.h"

// What is done on opening with the work that was interrupted. A file system that refuses something
// here is logged and asked again when the registry is next opened; a database that does keeps the
// registry closed.

namespace pallion {

namespace {

constexpr const char* kRecover = "-[Registry recover]";

}  // namespace

Outcome EmbeddedRegistry::recover() {
  bool settled = true;
  if (Outcome failed = recoverIncoming(settled)) return failed;
  // Trash may hold metadata for a container that is not in its place yet.
  if (settled) {
    if (Outcome failed = recoverTrash()) return failed;
  }
  return recoverHarbors();
}

Outcome EmbeddedRegistry::recoverIncoming(bool& settled) {
  const auto entries = containers_.listIncoming();
  if (!entries)
    return Refusal{RegistryErrorCode::kDatabase, "Listing " + containers_.incomingDirectory(),
                   errno, ""};
  if (entries->empty()) return std::nullopt;
  std::vector<BundleRow> bundles;
  std::vector<GroupRow> groups;
  if (!database_->allBundles(bundles) || !database_->allGroups(groups)) return database_->failure();
  std::set<std::string> recorded;
  for (const BundleRow& row : bundles) recorded.insert({row.data, row.container});
  for (const GroupRow& row : groups) recorded.insert(row.container);

  for (const auto& entry : *entries) {
    const bool known = entry.container && recorded.count(entry.container->second) != 0;
    int failed = 0;
    if (known && entry.container->first != Kind::kCopy) {
      failed = containers_.settle(entry.container->first, entry.container->second);
      settled = settled && failed == 0;
    } else if (entry.container && entry.container->first == Kind::kBundle) {
      Outcome refused = completePackage(entry.container->second);
      if (!refused) continue;
      if (refused->code == RegistryErrorCode::kDatabase) return refused;
      LogWrite(kLogError, kRecover, "Failed to complete %s: %s", entry.name, refused->text());
    } else {
      failed = removeTree(containers_.incomingDirectory() + "/" + entry.name);
    }
    if (failed != 0) {
      LogWrite(kLogError, kRecover, "Failed to settle %s: %s", entry.name, strerrordesc_np(failed));
    }
  }
  return std::nullopt;
}

// A staging directory that was taken over after it had been verified, but not recorded.
Outcome EmbeddedRegistry::completePackage(const std::string& uuid) {
  const std::string directory = containers_.incoming(Kind::kBundle, uuid);
  StagedPackage package;
  if (Outcome refused = inspectPackage(directory, package)) return refused;
  if (!package.main || package.main->identifier.empty()) {
    return Refusal{RegistryErrorCode::kPackageInspection, directory, 0,
                   "holds no bundle with an identifier"};
  }
  return recordPackage(package, uuid, kRecover);
}

Outcome EmbeddedRegistry::recoverTrash() {
  std::vector<TrashRow> rows;
  if (!database_->allTrash(rows)) return database_->failure();
  for (const TrashRow& row : rows) {
    if (RegistryChange::dispose(containers_, row, kRecover)) removedTrash_.push_back(row.uuid);
  }
  return std::nullopt;
}

Outcome EmbeddedRegistry::recoverHarbors() {
  std::vector<HarborRow> rows;
  if (!database_->allPendingHarbors(rows)) return database_->failure();
  for (const HarborRow& row : rows) {
    struct stat status {};
    const bool moved =
        lstat((containers_.harborDirectory() + "/" + row.uuid).c_str(), &status) == 0;
    if (!moved && errno != ENOENT) {
      return Refusal{RegistryErrorCode::kDatabase, containers_.harborDirectory() + "/" + row.uuid,
                     errno, ""};
    }
    if (Outcome failed = moved ? recordHarbor(row) : forgetPendingHarbor(row.uuid)) return failed;
  }
  return std::nullopt;
}

}  // namespace pallion
