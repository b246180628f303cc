#include "configuration/global_configuration.h"

#include <gtest/gtest.h>
#include <set>
#include <thread>

namespace pallion::test {

TEST(GlobalConfiguration, NamesTheFixedLocations) {
  const PLGlobalConfiguration& c = PLGlobalConfiguration::sharedInstance();
  const std::pair<URL, const char*> rows[] = {
      {c.palliondPath(), "/private/var/palliond/"},
      {c.mobilePath(), "/private/var/mobile/"},
      {c.rootPath(), "/"},
      {c.oldContainerPath(), "/private/var/mobile/Applications/"},
      {c.oldInstallMapPath(), "/private/var/mobile/Library/Caches/com.orlix.pallion.plist"},
      {c.oldDataDirectoryPath(), "/private/var/mobile/Library/Pallion/"},
      {c.oldLoggingPath(), "/private/var/mobile/Library/Logs/Pallion/"},
      {c.oldArchiveDirectory(), "/private/var/mobile/Media/ApplicationArchives/"},
      {c.dataDirectoryPath(), "/private/var/palliond/Library/Pallion/"},
      {c.roleUserMigrationMarkerFilePath(),
       "/private/var/palliond/Library/Pallion/RoleUserMigration.plist"},
  };
  for (const auto& [url, path] : rows) EXPECT_EQ(url.path(), path);
  EXPECT_EQ(c.uid(), 33U);
  EXPECT_EQ(c.gid(), 33U);
  const PLGlobalConfiguration below(URL::fileURL("/image/", URL::Kind::kDirectory));
  EXPECT_EQ(below.oldContainerPath().path(), "/image/private/var/mobile/Applications/");
}

TEST(GlobalConfiguration, HoldsTheFixedLists) {
  const PLGlobalConfiguration& c = PLGlobalConfiguration::sharedInstance();
  EXPECT_EQ(c.appUserDataItemNames(),
            (std::vector<std::string>{"Documents", "Library", "tmp", "Tillbox"}));
  EXPECT_EQ(c.appBundleMetadataItemNames(),
            (std::vector<std::string>{"Manifest.plist", "BriscaArtwork", "BriscaMetadata.plist",
                                      "GeoJSON"}));
  EXPECT_EQ(c.installationBlacklist(), Value::set({Value::string("com.orlix.Tovin6Updater")}));
}

TEST(GlobalConfiguration, IsMadeOnceAndSoIsTheBlacklist) {
  std::vector<const PLGlobalConfiguration*> objects(8);
  std::vector<Value> lists(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < objects.size(); ++i) {
    threads.emplace_back([&, i] {
      objects[i] = &PLGlobalConfiguration::sharedInstance();
      lists[i] = objects[i]->installationBlacklist();
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (size_t i = 1; i < objects.size(); ++i) {
    EXPECT_EQ(objects[i], objects[0]);
    EXPECT_TRUE(lists[i].isIdenticalTo(lists[0]));
  }
}

}  // namespace pallion::test
