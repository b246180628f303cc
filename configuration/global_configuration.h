#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "foundation/url.h"
#include "foundation/value.h"
#include "platform/device_registry.h"

namespace pallion {

// Where everything of the installer product is, and its fixed lists. One object for the process;
// its fields are set when it is made and never change, so any thread may ask anything.
class PLGlobalConfiguration {
 public:
  // Made by the first call, for the root "/"; lives until the process ends.
  static PLGlobalConfiguration& sharedInstance();

  // A configuration whose locations lie below `root` (a directory). Reads the settings
  // (Preferences::current), and logs at level 5 those that differ from their defaults; makes no
  // file or directory.
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

  // Settings, as they were when the object was made.
  [[nodiscard]] bool lowerInstallPriority() const {
    return lowerInstallPriority_;
  }  // true by default
  [[nodiscard]] bool skipDeviceFamilyCheck() const { return skipDeviceFamilyCheck_; }
  [[nodiscard]] bool skipThinningCheck() const { return skipThinningCheck_; }
  [[nodiscard]] long nSimultaneousInstallations() const {
    return nSimultaneousInstallations_;
  }  // 4 by default
  // Settings that are looked up on every call. Setting one stores it at once; whether that worked
  // is not told.
  [[nodiscard]] bool haveUpdatedPluginContainersWithParentID() const;
  void setHaveUpdatedPluginContainersWithParentID(bool have) const;
  [[nodiscard]] std::optional<std::string> alternateThinningModelIdentifier() const;

  // Working directories, made on every call where they are missing (mode 0755, protection class 4
  // where one is set). One that can't be made is logged at level 3; its location is answered all
  // the same.
  URL carrierBundlesDirectory();  // /private/var/mobile/Library/Carrier Bundles/, no class
  URL cachesDirectory();          // /private/var/palliond/Library/Caches/, no class
  URL stagingRoot();              // com.orlix.mobile.palliond.staging/ in it
  URL dataDirectory();            // dataDirectoryPath()
  URL logDirectory() const;       // /private/var/palliond/Library/Logs/Pallion/

  // Fixed directories of the system; never made.
  URL baseweaveDirectory();                // /System/Library/Baseweave/
  URL systemAppsDirectory();               // /Applications/
  URL internalAppsDirectory();             // /OrlixInternal/Applications/
  URL developerAppsDirectory();            // /Developer/Applications/
  URL factoryMountDirectory();             // /private/var/factory_mount/
  URL systemFrameworksRootDirectory();     // /System/Library/
  URL internalFrameworksRootDirectory();   // /OrlixInternal/
  URL developerFrameworksRootDirectory();  // /Developer/
  // Frameworks and PrivateFrameworks of the system and the internal root; in no order.
  std::vector<URL> allFrameworksDirectories();

  // --- What is built into the system. A bundle identifier map leads from identifiers to the
  // entries kQXBundleIdentifier and kQXBundleVersion of a bundle's information property list, with
  // the bundle's path under kBundleURLKey. Of bundles with one identifier the one listed last
  // counts; links are left out; a bundle that can't be read is skipped (level 7).
  static constexpr std::string_view kBundleURLKey = "com.orlix.Pallion.bundleURL";
  // Of systemAppsDirectory, baseweaveDirectory and internalAppsDirectory. Kept until a re-scan is
  // asked for; nothing, and asked again the next time, for a directory that is not there or can't
  // be listed (level 3).
  std::optional<Dictionary> systemAppBundleIDToInfoMap();
  std::optional<Dictionary> baseweaveAppBundleIDToInfoMap();
  std::optional<Dictionary> internalAppBundleIDToInfoMap();
  // Of diskImageApplicationsDirectories, scanned on every call; a later directory's entry replaces
  // an earlier one's.
  Dictionary diskImageAppBundleIDToInfoMap();
  // Identifiers of the system's, the internal and the disk images' applications.
  std::set<std::string> builtInApplicationBundleIDs();
  // Identifiers of the frameworks in allFrameworksDirectories. Kept until the system's or the
  // internal applications are re-scanned.
  std::set<std::string> builtInFrameworkBundleIDs();
  void reScanSystemApps();
  void reScanBaseweaveApps();
  void reScanInternalApps();
  // Where attached disk images are mounted, as the mount table has it. Failures are logged at
  // level 3.
  [[nodiscard]] std::vector<std::string> diskImageMountPoints() const;
  // Where the first mounted medium below a device is mounted; nothing when none is.
  [[nodiscard]] std::optional<std::string> mountPointForDevice(DevObject device) const;
  // "Applications" on each of them, but for those below /private/var/debug_mount*, and
  // developerAppsDirectory.
  std::vector<URL> diskImageApplicationsDirectories();

 private:
  void readPreferences();
  [[nodiscard]] std::optional<Dictionary> _bundleIDMapForBundlesInDirectory(
      const URL& directory, std::string_view extension) const;
  [[nodiscard]] std::optional<Dictionary> _bundleIDMapForAppsInDirectory(
      const URL& directory) const;
  URL fixedDirectory(std::optional<URL>& cache, std::string_view relative);

  bool lowerInstallPriority_ = true;
  bool skipDeviceFamilyCheck_ = false;
  bool skipThinningCheck_ = false;
  long nSimultaneousInstallations_ = 4;
  URL palliondPath_;
  URL mobilePath_;
  URL rootPath_;
  uint32_t uid_ = 0;
  uint32_t gid_ = 0;

  std::recursive_mutex lock_;  // guards all below
  std::optional<URL> carrierBundlesDir_;
  std::optional<URL> stagingRoot_;
  std::optional<URL> cachesDir_;
  std::optional<URL> dataDir_;
  std::optional<URL> baseweaveDir_;
  std::optional<URL> systemAppsDir_;
  std::optional<URL> internalAppsDir_;
  std::optional<URL> developerAppsDir_;
  std::optional<URL> factoryMountDir_;
  std::optional<URL> systemFrameworksRootDirectory_;
  std::optional<URL> internalFrameworksRootDirectory_;
  std::optional<URL> developerFrameworksRootDirectory_;
  std::optional<std::vector<URL>> allFrameworksDirectories_;
  std::optional<Dictionary> systemAppBundleIDToInfoMap_;
  std::optional<Dictionary> baseweaveAppBundleIDToInfoMap_;
  std::optional<Dictionary> internalAppBundleIDToInfoMap_;
  std::optional<std::set<std::string>> builtInFrameworkBundleIDs_;
};

}  // namespace pallion
