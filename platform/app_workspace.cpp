#include "platform/app_workspace.h"

#include <atomic>
#include <sys/stat.h>

#include "platform/registry.h"

namespace pallion {

namespace {

std::atomic<AppWorkspace*> gReplacement{nullptr};

}  // namespace

std::optional<BundleProxy> BundleProxy::bundleProxyForIdentifier(const std::string& identifier) {
  return AppWorkspace::defaultWorkspace().proxyForIdentifier(identifier);
}

bool BundleProxy::foundBackingBundle() const {
  struct stat status {};
  return record_.bundleURL && lstat(record_.bundleURL->fileSystemRepresentation(), &status) == 0 &&
         S_ISDIR(status.st_mode);
}

InstallationForecast AppWorkspace::forecastInstallation(const InstallationQuestion& /*question*/) {
  return {};
}

AppWorkspace& AppWorkspace::defaultWorkspace() {
  AppWorkspace* replacement = gReplacement.load();
  return replacement ? *replacement : defaultRegistry();
}

AppWorkspace* AppWorkspace::replace(AppWorkspace* replacement) {
  AppWorkspace* before = gReplacement.exchange(replacement);
  return before ? before : &defaultRegistry();
}

}  // namespace pallion
