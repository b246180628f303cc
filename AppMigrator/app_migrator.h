#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "AppMigrator/container_verdict.h"
#include "configuration/global_configuration.h"
#include "file_operations/pending_moves.h"
#include "foundation/url.h"
#include "foundation/value.h"
#include "foundation/volume_order.h"
#include "platform/bundle.h"
#include "platform/migration_plugin.h"

namespace pallion {

// Carries every user-installed application from the old layout into the new one. The host makes
// one, calls `init`, and `performMigration` once; everything below runs synchronously on that
// thread. `migrationProgress` and `estimatedDuration` may be asked from any thread once `init` has
// returned.
//
// User data stands in the old place or in the new one, whole, at every instant; a run that was
// interrupted is repeated by the next one over what is left. Private operations log their own
// failures and answer whether they succeeded.
class PLAppMigrator : public MigrationPluginBase {
 public:
  explicit PLAppMigrator(
      const PLGlobalConfiguration& configuration = PLGlobalConfiguration::sharedInstance());

  // Takes the inventory and loads the maps. An old containers directory that holds nothing but
  // symbolic links is removed at once, together with the old install map. False when that directory
  // exists but can't be listed.
  bool init() override;
  std::string dataClassName() override;
  // 20, and 2.25 for each item of the inventory.
  float estimatedDuration() override;
  // Items dealt with as a fraction of the inventory; 0.5 without an inventory.
  float migrationProgress() override;
  // What a run would do, with the keys of plan_keys.h. Needs no `init`, leaves a migrator that had
  // one as it is, and changes nothing on disk.
  std::optional<Dictionary> migrationPlan() override;
  // True when every container, every safe harbor and the data-protection update succeeded and
  // nothing is left behind.
  bool performMigration() override;

 private:
  friend class MigrationPlanner;

  // The two halves of `init` that only read. The inventory: false when there is none because the
  // old containers directory can't be listed; `nothingButLinks` becomes true for a directory
  // without an item to migrate.
  bool readInventory(bool& nothingButLinks, std::string* problem);
  void readHarborMap();

  // migration_run.cpp
  bool migrateContainers();
  bool removeOldLayoutIfEmpty(bool result);

  // introspection.cpp: what one item of the old containers directory is. Nothing for an item that
  // is not to be migrated in this run: rubbish, which is removed, or what can't be judged, which is
  // left alone.
  std::optional<Dictionary> _introspectContainer(const URL& container, bool& orderResultEarly);
  // What is decided there, from the entries of the container. Changes nothing.
  ContainerVerdict classifyContainer(const URL& container, const std::vector<URL>& entries);
  // `unreadable` becomes true when the file may be whole but could not be read.
  std::optional<Dictionary> _loadAndValidateMigrationMarkerAtURL(const URL& marker,
                                                                 bool& unreadable);
  enum class IdentifierState { kFound, kNone, kUnreadable };
  IdentifierState _bundleIdentifierForBundle(const URL& bundle, std::string& identifier);

  // container.cpp
  bool _migrateContainerWithInfo(const Dictionary& info);

  // data_container.cpp
  // What crosses volumes is left to `moves`.
  bool _migrateDataContainerForIdentifier(const std::string& identifier, const URL& fromURL,
                                          const URL& toURL, PendingMoves& moves);
  bool _containerHasMissedItems(const URL& container, const std::string& identifier);

  // bundle_installation.cpp
  bool _stageAndInstallBundleAtURL(const URL& bundle, const std::string& identifier,
                                   const std::optional<URL>& vpnPlugin, const URL& container);

  // placeholder.cpp
  bool _stageAndInstallPlaceholderForBundleAtURL(const URL& bundle, const std::string& identifier,
                                                 const URL& container);
  bool buildAndInstallPlaceholder(const URL& placeholder, const URL& bundle,
                                  const std::string& identifier, const URL& container);
  bool _writeIconForBundle(QXBundle& bundle, const URL& toURL);

  // group_containers.cpp
  bool _migrateGroupContainersForIdentifier(const std::string& identifier);
  // False when the old container could not be listed, or when an item could not be moved and the
  // rest must stay.
  bool _moveAllItemsInGroupContainerURL(const URL& fromURL, const URL& toGroupContainerURL,
                                        PendingMoves& moves);

  // safe_harbors.cpp
  bool _migrateSafeHarbors();

  const PLGlobalConfiguration& configuration_;
  std::atomic<uint64_t> _countItemsMigrated = 0;
  std::optional<std::vector<URL>> _itemsToMigrate;
  std::optional<Dictionary> _installMap;
  std::optional<Dictionary> _harborMap;
  std::optional<Dictionary> _groupContainerMap;
  VolumeOrder temporaryVolume_;          // of the temporary directory
  bool installMapIsUnreadable_ = false;  // there is one, but reading it failed
};

}  // namespace pallion
