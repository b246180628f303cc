#include "AppMigrator/app_migrator.h"
#include "AppMigrator/container_info.h"
#include "AppMigrator/migrator_log.h"
#include "file_operations/file_manager.h"
#include "foundation/property_list.h"
#include "platform/app_workspace.h"

namespace pallion {

namespace {

constexpr char kFunction[] = "-[PLAppMigrator _migrateContainerWithInfo:]";

void logProxyWithoutDataContainer(const BundleProxy& proxy, const std::string& identifier) {
  logError(kFunction, "PLAppMigrator: Failed to get data container URL for %@", identifier);
  logError(kFunction, "PLAppMigrator: Proxy had bundle identifier %@", proxy.bundleIdentifier());
  logError(kFunction, "PLAppMigrator: Proxy had bundle type %@", proxy.bundleType());
  logError(kFunction, "PLAppMigrator: Proxy had bundle URL %@", proxy.bundleURL());
  logError(kFunction, "PLAppMigrator: Proxy had bundle container URL %@",
           proxy.bundleContainerURL());
  logError(kFunction, "PLAppMigrator: Proxy %s have backing bundle",
           proxy.foundBackingBundle() ? "did" : "did not");
}

// Removes the old container, its marker first: a marker that outlived the bundle it speaks of would
// have a later run resume a container that is half gone.
void removeContainer(const URL& container, const URL& marker, const std::string& identifier) {
  const PLFileManager& files = PLFileManager::defaultManager();
  logNotice(kFunction, "PLAppMigrator: Removing container for %@ at %@", identifier,
            container.path());
  files.removeItemAtURL(marker, nullptr);
  Error error;
  if (!files.removeItemAtURL(container, &error)) {
    logError(kFunction, "PLAppMigrator: Failed to remove container %@ : %@", container.path(),
             error);
  }
}

}  // namespace

bool PLAppMigrator::_migrateContainerWithInfo(const Dictionary& info) {
  const URL container = URL::fileURL(*info.getString(kContainerPathKey), URL::Kind::kDirectory);
  const URL bundle = URL::fileURL(*info.getString(kBundlePathKey), URL::Kind::kDirectory);
  std::optional<URL> secondBundle;
  if (const std::string* path = info.getString(kSecondBundlePathKey)) {
    secondBundle = URL::fileURL(*path, URL::Kind::kDirectory);
  }
  const std::string identifier = *info.getString(kBundleIdentifierKey);
  const bool oldBundleIsPlaceholder =
      PLFileManager::defaultManager().bundleAtURLIsPlaceholder(bundle);
  const URL marker = container.appending(kMigrationMarkerName, URL::Kind::kFile);

  stepStarted("marker");
  if (writePropertyListFile(Value::dictionary(info), marker, PropertyListFormat::kBinary,
                            Durability::kOrdered) != 0) {
    logError(kFunction,
             "PLAppMigrator: Failed to write out container marker dictionary... hopefully we don't "
             "need it to "
             "recover.");
  }

  if (*info.getString(kContainerTypeKey) == kContainerTypeApp) {
    if (AppWorkspace::defaultWorkspace().applicationIsInstalled(identifier)) {
      logNotice(kFunction,
                "PLAppMigrator: App %@ is already installed, so not creating placeholder.",
                identifier);
    } else {
      stepStarted("placeholder");
      if (!_stageAndInstallPlaceholderForBundleAtURL(bundle, identifier, container)) return false;
    }
  }

  const std::optional<BundleProxy> proxy = BundleProxy::bundleProxyForIdentifier(identifier);
  if (!proxy) {
    logError(kFunction, "PLAppMigrator: Failed to get bundle proxy for identifier %@", identifier);
    return false;
  }
  const std::optional<URL>& dataContainer = proxy->dataContainerURL();
  if (!dataContainer) {
    logProxyWithoutDataContainer(*proxy, identifier);
    return false;
  }

  logNotice(kFunction, "PLAppMigrator: Moving data from container %@ to %@", container.path(),
            dataContainer->path());
  stepStarted("data");
  PendingMoves moves;
  if (!_migrateDataContainerForIdentifier(identifier, container, *dataContainer, moves))
    return false;

  bool installed = true;
  if (!oldBundleIsPlaceholder) {
    std::optional<std::string> secondPath;
    if (secondBundle) secondPath = secondBundle->path();
    logNotice(kFunction, "PLAppMigrator: Staging and installing app %@ at %@ (and secondary %@)",
              identifier, bundle.path(), secondPath);
    stepStarted("bundle");
    installed = _stageAndInstallBundleAtURL(bundle, identifier, secondBundle, container);
  }
  // After the installation, whose sync serves data that was copied to another volume as well.
  if (Error error; !moves.complete(&error)) {
    logError(kFunction, "PLAppMigrator: Failed to move %@ to %@ migrating for %@ : %@", container,
             *dataContainer, identifier, error);
    return false;
  }
  stepStarted("groups");
  if (installed && !oldBundleIsPlaceholder &&
      (!_migrateGroupContainersForIdentifier(identifier) ||
       _containerHasMissedItems(container, identifier))) {
    return false;
  }
  stepStarted("removal");
  // Also without the bundle: the user's data has left the container.
  removeContainer(container, marker, identifier);
  return installed;
}

}  // namespace pallion
