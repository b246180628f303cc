#include "configuration/global_configuration.h"

#include "file_operations/store_metadata.h"

namespace pallion {

PLGlobalConfiguration& PLGlobalConfiguration::sharedInstance() {
  // Never destroyed: threads that outlive main may still use it.
  static PLGlobalConfiguration* const kShared = new PLGlobalConfiguration(URL());
  return *kShared;
}

PLGlobalConfiguration::PLGlobalConfiguration(const URL& root) {
  readPreferences();
  palliondPath_ = root.appending("private/var/palliond", URL::Kind::kDirectory);
  mobilePath_ = root.appending("private/var/mobile", URL::Kind::kDirectory);
  rootPath_ = root;
  uid_ = 33;
  gid_ = 33;
}

URL PLGlobalConfiguration::oldContainerPath() const {
  return mobilePath_.appending("Applications", URL::Kind::kDirectory);
}
URL PLGlobalConfiguration::oldInstallMapPath() const {
  return mobilePath_.appending("Library/Caches/com.orlix.pallion.plist", URL::Kind::kFile);
}
URL PLGlobalConfiguration::oldDataDirectoryPath() const {
  return mobilePath_.appending("Library/Pallion", URL::Kind::kDirectory);
}
URL PLGlobalConfiguration::oldLoggingPath() const {
  return mobilePath_.appending("Library/Logs/Pallion", URL::Kind::kDirectory);
}
URL PLGlobalConfiguration::oldArchiveDirectory() const {
  return mobilePath_.appending("Media/ApplicationArchives", URL::Kind::kDirectory);
}
URL PLGlobalConfiguration::dataDirectoryPath() const {
  return palliondPath_.appending("Library/Pallion", URL::Kind::kDirectory);
}
URL PLGlobalConfiguration::roleUserMigrationMarkerFilePath() const {
  return dataDirectoryPath().appending("RoleUserMigration.plist", URL::Kind::kFile);
}

std::vector<std::string> PLGlobalConfiguration::appBundleMetadataItemNames() const {
  std::vector<std::string> names;
  names.reserve(kStoreMetadataItems.size());
  for (const StoreMetadataItem& item : kStoreMetadataItems) names.emplace_back(item.name);
  return names;
}

std::vector<std::string> PLGlobalConfiguration::appUserDataItemNames() const {
  return {"Documents", "Library", "tmp", "Tillbox"};
}

Value PLGlobalConfiguration::installationBlacklist() const {
  static const Value kBlacklist = Value::set({Value::string("com.orlix.Tovin6Updater")});
  return kBlacklist;
}

}  // namespace pallion
