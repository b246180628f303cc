#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/url.h"
#include "foundation/value.h"

namespace pallion {

// Where everything of the installer product is, and its fixed lists. One object for the process;
// its fields are set when it is made and never change, so any thread may ask anything.
class PLGlobalConfiguration {
 public:
  // Made by the first call, for the root "/"; lives until the process ends.
  static PLGlobalConfiguration& sharedInstance();

  // A configuration whose locations lie below `root` (a directory). Touches no file.
  explicit PLGlobalConfiguration(const URL& root);
  PLGlobalConfiguration(const PLGlobalConfiguration&) = delete;
  PLGlobalConfiguration& operator=(const PLGlobalConfiguration&) = delete;

  // Base locations, all directories: /private/var/palliond/, /private/var/mobile/ and /.
  [[nodiscard]] const URL& palliondPath() const { return palliondPath_; }
  [[nodiscard]] const URL& mobilePath() const { return mobilePath_; }
  [[nodiscard]] const URL& rootPath() const { return rootPath_; }
  // User and group of the installer.
  [[nodiscard]] uint32_t uid() const { return uid_; }
  [[nodiscard]] uint32_t gid() const { return gid_; }

  // The old layout.
  [[nodiscard]] URL oldContainerPath() const;  // /private/var/mobile/Applications/
  [[nodiscard]] URL oldInstallMapPath()
      const;  // /private/var/mobile/Library/Caches/com.orlix.pallion.plist
  [[nodiscard]] URL oldDataDirectoryPath() const;  // /private/var/mobile/Library/Pallion/
  [[nodiscard]] URL oldLoggingPath() const;        // /private/var/mobile/Library/Logs/Pallion/
  [[nodiscard]] URL oldArchiveDirectory() const;   // /private/var/mobile/Media/ApplicationArchives/
  // The new one. Neither is made here.
  [[nodiscard]] URL dataDirectoryPath() const;  // /private/var/palliond/Library/Pallion/
  [[nodiscard]] URL roleUserMigrationMarkerFilePath() const;  // RoleUserMigration.plist in it

  // Files that accompany a bundle at the top level of its container.
  [[nodiscard]] std::vector<std::string> appBundleMetadataItemNames() const;
  // Items of an old container that hold the user's data, in the order in which they are moved.
  [[nodiscard]] std::vector<std::string> appUserDataItemNames() const;
  // Bundle identifiers that are never installed: a set, the same object on every call.
  [[nodiscard]] Value installationBlacklist() const;

 private:
  URL palliondPath_;
  URL mobilePath_;
  URL rootPath_;
  uint32_t uid_;
  uint32_t gid_;
};

}  // namespace pallion
