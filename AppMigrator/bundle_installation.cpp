#include <cerrno>
#include <sys/stat.h>

#include "AppMigrator/app_migrator.h"
#include "AppMigrator/container_info.h"
#include "AppMigrator/install_options.h"
#include "AppMigrator/migrator_log.h"
#include "file_operations/error_makers.h"
#include "file_operations/file_manager.h"
#include "platform/app_workspace.h"

namespace pallion {

namespace {

constexpr char kFunction[] =
    "-[PLAppMigrator _stageAndInstallBundleAtURL:withIdentifier:andVPNPluginAtURL:inContainerURL:]";

// Makes a directory of ours. A symbolic link that stands there is taken away first: what follows
// would be done to whatever it leads to. True when a directory stood there before. Failures show
// when the directory is used.
bool makeOwnDirectory(const URL& directory) {
  const char* path = directory.fileSystemRepresentation();
  if (mkdir(path, 0755) == 0 || errno != EEXIST) return false;
  struct stat status {};
  if (lstat(path, &status) != 0) return false;
  if (!S_ISLNK(status.st_mode)) return true;
  logError(kFunction, "PLAppMigrator: Found symlink at %@ ; removing", directory.path());
  PLFileManager::defaultManager().removeItemAtURL(directory, nullptr);
  mkdir(path, 0755);
  return false;
}

// Moves a bundle into the payload under its own name. A marker may name any path, so the name is
// looked at first.
bool moveIntoPayload(const URL& bundle, const URL& payload, URL& destination, Error& error) {
  const std::string name = bundle.lastPathComponent();
  destination = payload.appending(name, URL::Kind::kDirectory);
  if (name == "." || name == ".." || name == "/") {
    error = _CreateError(kFunction, __LINE__, kPOSIXErrorDomain, EINVAL, "\"%@\" is no plain name",
                         name);
    return false;
  }
  return PLFileManager::defaultManager().moveItemIfExistsAtURL(bundle, destination, &error);
}

// What the registry tells of an installation. Sets the flag when the system has a newer version
// built in.
void hearStatus(const Dictionary& status, const URL& bundle, bool& alreadyInstalled) {
  const Value name = status.get("Error");
  if (!name) return;
  if (name == Value::string(std::string(kAppAlreadyInstalledError))) {
    logNotice(kFunction,
              "PLAppMigrator: Installation of %@ failed because it's older than what's built into "
              "the system. "
              "Data migration already happened so we're done here.",
              bundle.path());
    alreadyInstalled = true;
    return;
  }
  logError(kFunction, "PLAppMigrator: Installation of %@ failed with Pallion error %@ (%@ : %@)",
           bundle.path(), status.get("ErrorDescription"), name, status.get("ErrorDetail"));
}

}  // namespace

bool PLAppMigrator::_stageAndInstallBundleAtURL(const URL& bundle, const std::string& identifier,
                                                const std::optional<URL>& vpnPlugin,
                                                const URL& container) {
  const PLFileManager& files = PLFileManager::defaultManager();
  const URL staging = container.appending(kStagingName, URL::Kind::kDirectory);
  const URL payload = staging.appending("Payload", URL::Kind::kDirectory);
  if (makeOwnDirectory(staging)) makeOwnDirectory(payload);
  Error error;
  if (!files.createDirectoryAtURL(payload, true, 0755, &error)) {
    logError(kFunction, "PLAppMigrator: Failed to create %@ : %@", payload, error);
    return false;
  }
  URL destination;
  if (!moveIntoPayload(bundle, payload, destination, error)) {
    logError(kFunction, "PLAppMigrator: Failed to move bundle from %@ to %@: %@", bundle,
             destination, error);
    return false;
  }
  if (vpnPlugin && !moveIntoPayload(*vpnPlugin, payload, destination, error)) {
    logError(kFunction, "PLAppMigrator: Failed to move vpn bundle from %@ to %@: %@", *vpnPlugin,
             destination, error);
    return false;
  }
  if (!files.captureStoreDataFromDirectory(container, staging, false, false, &error)) {
    logError(kFunction, "PLAppMigrator: Failed to move app metadata from %@ to %@: %@", container,
             staging, error);
    return false;
  }

  bool alreadyInstalled = false;
  const bool installed = AppWorkspace::defaultWorkspace().installApplication(
      staging, bundleInstallOptions(identifier), &error,
      [&](const Dictionary& status) { hearStatus(status, bundle, alreadyInstalled); });
  if (installed || alreadyInstalled) return true;
  logError(kFunction, "PLAppMigrator: Failed to install %@ : %@", staging, error);
  return false;
}

}  // namespace pallion
