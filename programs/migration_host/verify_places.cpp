#include "programs/migration_host/verify_places.h"

#include <sys/stat.h>

namespace pallion::host {

bool UserDataPlaces::load(Registry& registry, Error* cause) {
  const auto applications = registry.allProxies(cause);
  if (!applications) return false;
  const auto harbors = registry.allSafeHarbors(cause);
  if (!harbors) return false;
  for (const BundleProxy& application : *applications) {
    if (application.dataContainerURL()) {
      dataContainers_.emplace(application.bundleIdentifier(),
                              application.dataContainerURL()->fileSystemRepresentation());
    }
    if (!application.groupContainerURLs()) continue;
    for (const auto& [identifier, url] : *application.groupContainerURLs()) {
      groupContainers_.emplace(identifier, url.fileSystemRepresentation());
    }
  }
  for (const SafeHarborRecord& harbor : *harbors) harbors_.emplace(harbor.identifier, harbor.path);
  return true;
}

UserDataPlaces::Place UserDataPlaces::placeOf(const UserDataItem& item) const {
  struct stat status {};
  if (lstat(item.path.c_str(), &status) == 0) return {Layout::kOld, item.path};
  const auto& places = item.kind == UserDataKind::kApp     ? dataContainers_
                       : item.kind == UserDataKind::kGroup ? groupContainers_
                                                           : harbors_;
  const auto found = places.find(item.identifier);
  if (found == places.end()) return {};
  const bool isWhole = item.kind == UserDataKind::kHarbor;
  return {Layout::kNew, isWhole ? found->second : found->second + "/" + item.name};
}

}  // namespace pallion::host
