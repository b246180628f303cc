#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "configuration/global_configuration.h"
#include "foundation/unique_descriptor.h"
#include "platform/protection_class.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {
namespace {

struct WorkingDirectory {
  const char* name;
  URL (*get)(PLGlobalConfiguration&);
  const char* path;  // below the root
  int protectionClass;
  const char* failure;  // up to the location
};

const WorkingDirectory kWorkingDirectories[] = {
    {"carrierBundlesDirectory",
     [](PLGlobalConfiguration& c) { return c.carrierBundlesDirectory(); },
     "private/var/mobile/Library/Carrier Bundles", 0,
     "Failed to create carrier bundles directory at"},
    {"cachesDirectory", [](PLGlobalConfiguration& c) { return c.cachesDirectory(); },
     "private/var/palliond/Library/Caches", 0, "Failed to create data dir at"},
    {"stagingRoot", [](PLGlobalConfiguration& c) { return c.stagingRoot(); },
     "private/var/palliond/Library/Caches/com.orlix.mobile.palliond.staging", 4,
     "Failed to create staging root at"},
    {"dataDirectory", [](PLGlobalConfiguration& c) { return c.dataDirectory(); },
     "private/var/palliond/Library/Pallion", 4, "Failed to create data dir at"},
    {"logDirectory", [](PLGlobalConfiguration& c) { return c.logDirectory(); },
     "private/var/palliond/Library/Logs/Pallion", 4, "Failed to create log directory at"},
};

TEST(WorkingDirectories, AreMadeOnEveryCallAndFailuresOnlyLogged) {
  for (const WorkingDirectory& d : kWorkingDirectories) {
    SCOPED_TRACE(d.name);
    const TemporaryRoot root;
    PLGlobalConfiguration c(root.url());
    const std::string path = root / d.path;
    for (int call = 0; call < 2; ++call) {
      root.makeFile("private", "in the way");
      RecordedProductLog log;
      EXPECT_EQ(d.get(c).path(), path + "/");
      // The first call for the staging root asks for the caches' place too.
      ASSERT_FALSE(log.lines.empty());
      const std::string& line = log.lines.back();
      EXPECT_TRUE(line.starts_with(
          "3 -[PLGlobalConfiguration " + std::string(d.name) + "]: " + d.failure + " \"" +
          URL::fileURL(path, URL::Kind::kDirectory).absoluteString() + "\": "))
          << line;
      EXPECT_NE(line.find("Not a directory"), std::string::npos) << line;
      ASSERT_EQ(unlink((root / "private").c_str()), 0);

      log.lines.clear();
      EXPECT_EQ(d.get(c).path(), path + "/");
      EXPECT_TRUE(log.lines.empty());
      struct stat status {};
      ASSERT_EQ(lstat(path.c_str(), &status), 0);
      EXPECT_EQ(status.st_mode, S_IFDIR | 0755U);
      const UniqueDescriptor made(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      EXPECT_EQ(ProtectionClass::current().get(made.get()), d.protectionClass);
      // The class is set again where the directory stands; one without is left as it is.
      ASSERT_EQ(ProtectionClass::current().set(made.get(), 2), 0);
      d.get(c);
      EXPECT_EQ(ProtectionClass::current().get(made.get()),
                d.protectionClass == 0 ? 2 : d.protectionClass);
      std::filesystem::remove_all(root / "private");
    }
  }
}

}  // namespace
}  // namespace pallion::test
