#include "configuration/global_configuration.h"

#include <filesystem>
#include <gtest/gtest.h>

#include "tests/helpers/temporary_root.h"

namespace pallion::test {

TEST(GlobalConfiguration, NamesLocationsAndListsAndMakesNoneOfThem) {
  const TemporaryRoot root;
  PLGlobalConfiguration c(root.url());
  const std::pair<URL, const char*> rows[] = {
      {c.palliondPath(), "private/var/palliond/"},
      {c.mobilePath(), "private/var/mobile/"},
      {c.rootPath(), ""},
      {c.oldContainerPath(), "private/var/mobile/Applications/"},
      {c.oldInstallMapPath(), "private/var/mobile/Library/Caches/com.orlix.pallion.plist"},
      {c.oldDataDirectoryPath(), "private/var/mobile/Library/Pallion/"},
      {c.oldLoggingPath(), "private/var/mobile/Library/Logs/Pallion/"},
      {c.oldArchiveDirectory(), "private/var/mobile/Media/ApplicationArchives/"},
      {c.dataDirectoryPath(), "private/var/palliond/Library/Pallion/"},
      {c.roleUserMigrationMarkerFilePath(),
       "private/var/palliond/Library/Pallion/RoleUserMigration.plist"},
      {c.baseweaveDirectory(), "System/Library/Baseweave/"},
      {c.systemAppsDirectory(), "Applications/"},
      {c.internalAppsDirectory(), "OrlixInternal/Applications/"},
      {c.developerAppsDirectory(), "Developer/Applications/"},
      {c.factoryMountDirectory(), "private/var/factory_mount/"},
      {c.systemFrameworksRootDirectory(), "System/Library/"},
      {c.internalFrameworksRootDirectory(), "OrlixInternal/"},
      {c.developerFrameworksRootDirectory(), "Developer/"},
      {c.allFrameworksDirectories().at(3), "OrlixInternal/PrivateFrameworks/"},
  };
  for (const auto& [url, path] : rows) EXPECT_EQ(url.path(), root / path);
  EXPECT_TRUE(std::filesystem::is_empty(root.path()));

  const PLGlobalConfiguration& shared = PLGlobalConfiguration::sharedInstance();
  EXPECT_EQ(shared.oldContainerPath().path(), "/private/var/mobile/Applications/");
  EXPECT_EQ(shared.uid(), 33U);
  EXPECT_EQ(shared.gid(), 33U);
  EXPECT_EQ(shared.appUserDataItemNames(),
            (std::vector<std::string>{"Documents", "Library", "tmp", "Tillbox"}));
  EXPECT_EQ(shared.appBundleMetadataItemNames(),
            (std::vector<std::string>{"Manifest.plist", "BriscaArtwork", "BriscaMetadata.plist",
                                      "GeoJSON"}));
  EXPECT_EQ(shared.installationBlacklist(), Value::set({Value::string("com.orlix.Tovin6Updater")}));
  EXPECT_TRUE(shared.installationBlacklist().isIdenticalTo(c.installationBlacklist()));
}

}  // namespace pallion::test
