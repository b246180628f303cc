#include "platform/registry_change.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>

#include "platform/product_log.h"
#include "platform/recursive_remove.h"
#include "platform/store_metadata.h"
#include "platform/tree_copy.h"
#include "platform/uuid.h"

namespace pallion {

namespace {

// The removal of a replaced bundle container, of which store metadata that the successor has none
// of goes there.
class Inheritance final : public RemovalState {
 public:
  Inheritance(const std::string& path, std::string heir, const char* function)
      : path_(path), heir_(std::move(heir)), function_(function) {
    expect(Expected::kFilledDirectory);
  }

  int offer(int directory, const char* name) override {
    if (std::ranges::find(kStoreMetadataNames, std::string_view(name)) == kStoreMetadataNames.end())
      return kRemoveIt;
    const std::string to = heir_ + "/" + name;
    if (renameat2(directory, name, AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno == ENOENT || errno == EEXIST) return kRemoveIt;
    const int failed = errno;
    LogWrite(kLogError, function_, "Failed to move %s to %s: %s", path_ + "/" + name, to,
             strerrordesc_np(failed));
    return failed;
  }

 private:
  const std::string& path_;
  std::string heir_;
  const char* function_;
};

}  // namespace

RegistryChange::~RegistryChange() {
  if (!open_) return;
  database_.rollback();
  for (const auto& [kind, uuid] : made_) removeTree(containers_.incoming(kind, uuid));
}

Outcome RegistryChange::begin() {
  if (!database_.begin()) return database_.failure();
  open_ = true;
  for (const std::string& uuid : removedTrash_) {
    if (!database_.removeTrash(uuid)) return database_.failure();
  }
  return std::nullopt;
}

Outcome RegistryChange::make(Kind kind, std::string& uuid) {
  uuid = makeUUID();
  made_.emplace_back(kind, uuid);
  const int failed = containers_.make(kind, uuid);
  if (failed != 0) {
    return Refusal{RegistryErrorCode::kInstallation, "Making " + containers_.incoming(kind, uuid),
                   failed, ""};
  }
  adopt(kind, uuid);
  return std::nullopt;
}

Outcome RegistryChange::storeBundle(BundleRow& row) {
  if (row.data.empty()) {
    if (Outcome failed = make(Kind::kData, row.data)) return failed;
  }
  if (!database_.storeBundle(row)) return database_.failure();
  return std::nullopt;
}

Outcome RegistryChange::storeGroups(const std::string& bundle,
                                    const std::vector<std::string>& groups) {
  for (const std::string& group : groups) {
    std::optional<std::string> container;
    if (!database_.findGroup(group, container)) return database_.failure();
    if (container) continue;
    std::string uuid;
    if (Outcome failed = make(Kind::kGroup, uuid)) return failed;
    if (!database_.storeGroup({group, uuid})) return database_.failure();
  }
  if (!database_.storeGroupsOfBundle(bundle, groups)) return database_.failure();
  return std::nullopt;
}

Outcome RegistryChange::storeTrash(TrashRow row) {
  if (!database_.storeTrash(row)) return database_.failure();
  trash_.push_back(std::move(row));
  return std::nullopt;
}

Outcome RegistryChange::commit() {
  if (!containers_.syncsKeepOrder() &&
      TreeCopy::current().syncVolume(containers_.incomingDirectory().c_str()) != 0) {
    return Refusal{RegistryErrorCode::kInstallation, "Syncing " + containers_.incomingDirectory(),
                   errno, ""};
  }
  if (!database_.commit()) return database_.failure();
  open_ = false;
  removedTrash_.clear();
  bool settled = true;
  for (const auto& [kind, uuid, bundles] : incoming_) {
    const int failed = containers_.settle(kind, uuid, bundles);
    if (failed == 0) continue;
    settled = false;
    LogWrite(kLogError, function_, "Failed to move %s to %s: %s", containers_.incoming(kind, uuid),
             containers_.place(kind, uuid), strerrordesc_np(failed));
  }
  // Metadata can only be handed on to a container that stands in its place.
  for (const TrashRow& row : settled ? trash_ : std::vector<TrashRow>()) {
    if (dispose(containers_, row, function_)) removedTrash_.push_back(row.uuid);
  }
  database_.checkpointIfLarge();
  return std::nullopt;
}

bool RegistryChange::dispose(RegistryContainers& containers, const TrashRow& row,
                             const char* function) {
  const std::string path = row.kind == TrashRow::Kind::kHarbor
                               ? containers.harborDirectory() + "/" + row.uuid
                               : containers.place(Kind::kBundle, row.uuid);
  int failed = 0;
  if (row.successor.empty()) {
    failed = removeTree(path);
  } else {
    Inheritance state(path, containers.place(Kind::kBundle, row.successor), function);
    state.startAt(containers.bundleDirectory());
    failed = state.directory() < 0 ? errno : removeTree(row.uuid, state);
  }
  if (failed != 0)
    LogWrite(kLogError, function, "Failed to remove %s: %s", path, strerrordesc_np(failed));
  return failed == 0;
}

}  // namespace pallion
