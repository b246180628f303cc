#include <fcntl.h>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <new>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "configuration/global_configuration.h"
#include "foundation/unique_descriptor.h"
#include "platform/make_path.h"
#include "platform/protection_class.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {
namespace {

using Getter = URL (*)(PLGlobalConfiguration&);

struct WorkingDirectory {
  const char* name;
  Getter get;
  const char* path;  // below the root
  int protectionClass;
  const char* failure;  // up to the location
  bool inCaches = false;
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
     "Failed to create staging root at", true},
    {"dataDirectory", [](PLGlobalConfiguration& c) { return c.dataDirectory(); },
     "private/var/palliond/Library/Pallion", 4, "Failed to create data dir at"},
    {"logDirectory", [](PLGlobalConfiguration& c) { return c.logDirectory(); },
     "private/var/palliond/Library/Logs/Pallion", 4, "Failed to create log directory at"},
};

UniqueDescriptor opened(const std::string& path) {
  return UniqueDescriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

unsigned modeOf(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

TEST(WorkingDirectories, AreMadeOnEveryCall) {
  const mode_t before = umask(022);
  for (const WorkingDirectory& d : kWorkingDirectories) {
    SCOPED_TRACE(d.name);
    const TemporaryRoot root;
    RecordedProductLog log;
    PLGlobalConfiguration c(root.url());
    EXPECT_TRUE(std::filesystem::is_empty(root.path()));
    const std::string path = root / d.path;
    for (int call = 0; call < 2; ++call) {
      EXPECT_EQ(d.get(c).path(), path + "/");
      EXPECT_EQ(modeOf(path), S_IFDIR | 0755U);
      EXPECT_EQ(modeOf(root / "private/var"), S_IFDIR | 0755U);
      EXPECT_EQ(ProtectionClass::current().get(opened(path).get()), d.protectionClass);
      std::filesystem::remove_all(root / "private");
    }
    // The class is set again where the directory stands; one without is left as it is.
    d.get(c);
    ASSERT_EQ(ProtectionClass::current().set(opened(path).get(), 2), 0);
    d.get(c);
    EXPECT_EQ(ProtectionClass::current().get(opened(path).get()),
              d.protectionClass == 0 ? 2 : d.protectionClass);
    EXPECT_TRUE(log.lines.empty());
  }
  umask(before);
}

TEST(WorkingDirectories, ThatCannotBeMadeAreLoggedOnEveryCall) {
  for (const WorkingDirectory& d : kWorkingDirectories) {
    SCOPED_TRACE(d.name);
    const TemporaryRoot root;
    root.makeFile("private", "in the way");
    PLGlobalConfiguration c(root.url());
    const auto line = [](const char* name, const char* failure, const std::string& path) {
      const std::string url = URL::fileURL(path, URL::Kind::kDirectory).absoluteString();
      return "3 -[PLGlobalConfiguration " + std::string(name) + "]: " + failure + " \"" + url +
             "\": ";
    };
    for (int call = 0; call < 3; ++call) {
      RecordedProductLog log;
      EXPECT_EQ(d.get(c).path(), root / d.path + "/");
      std::vector<std::string> expected;
      // The caches' location is asked for only while that of the staging root is not known.
      if (d.inCaches && call == 0) {
        const WorkingDirectory& caches = kWorkingDirectories[1];
        expected.push_back(line(caches.name, caches.failure, root / caches.path));
      }
      expected.push_back(line(d.name, d.failure, root / d.path));
      ASSERT_EQ(log.lines.size(), expected.size());
      for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_TRUE(log.lines[i].starts_with(expected[i])) << log.lines[i];
        EXPECT_NE(log.lines[i].find("Not a directory"), std::string::npos) << log.lines[i];
      }
    }
    ASSERT_EQ(unlink((root / "private").c_str()), 0);
    RecordedProductLog log;
    EXPECT_TRUE(std::filesystem::is_directory(d.get(c).path()));
    EXPECT_TRUE(log.lines.empty());
  }
}

class RefusingProtectionClass : public ProtectionClass {
 public:
  RefusingProtectionClass() { replace(this); }
  ~RefusingProtectionClass() override { replace(nullptr); }
  int get(int) override { return 0; }
  int set(int, int protectionClass) override {
    EXPECT_EQ(protectionClass, 4);
    errno = EDQUOT;
    return -1;
  }
};

TEST(WorkingDirectories, WhoseClassCannotBeSetAreLogged) {
  const RefusingProtectionClass refusing;
  for (const WorkingDirectory& d : kWorkingDirectories) {
    const TemporaryRoot root;
    PLGlobalConfiguration c(root.url());
    RecordedProductLog log;
    EXPECT_TRUE(std::filesystem::is_directory(d.get(c).path()));
    ASSERT_EQ(log.lines.size(), d.protectionClass == 0 ? 0 : 1) << d.name;
    if (d.protectionClass != 0) {
      EXPECT_NE(log.lines[0].find("Disk quota exceeded"), std::string::npos) << log.lines[0];
    }
  }
}

// Makes paths as the system does, or throws; sees whether two threads are at it at the same time.
class WatchedMakePath : public MakePath {
 public:
  WatchedMakePath() { replace(this); }
  ~WatchedMakePath() override { replace(nullptr); }
  int make(const char* path, mode_t mode) override {
    if (throws) throw std::bad_alloc();
    if (++inside_ > 1) overlapped = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const int number = system().make(path, mode);
    --inside_;
    return number;
  }
  std::atomic<bool> throws = false;
  std::atomic<bool> overlapped = false;

 private:
  std::atomic<int> inside_ = 0;
};

// Whether another thread gets through the lock.
bool isUnlocked(PLGlobalConfiguration& c) {
  std::promise<void> done;
  const std::future<void> through = done.get_future();
  std::thread([&c, done = std::move(done)]() mutable {
    c.systemAppsDirectory();
    done.set_value();
  }).detach();
  return through.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
}

TEST(WorkingDirectories, DoNotStayLockedAfterAFailure) {
  const TemporaryRoot root;
  root.makeFile("private");
  // Not destroyed after a failure: the thread that is locked out still refers to it.
  auto* const kept = new PLGlobalConfiguration(root.url());
  PLGlobalConfiguration& c = *kept;
  const RecordedProductLog log;
  WatchedMakePath paths;
  for (const WorkingDirectory& d : kWorkingDirectories) {
    d.get(c);
    ASSERT_TRUE(isUnlocked(c)) << d.name;
    paths.throws = true;
    EXPECT_THROW(d.get(c), std::bad_alloc);
    ASSERT_TRUE(isUnlocked(c)) << d.name << " thrown out of";
    paths.throws = false;
  }
  delete kept;
}

TEST(WorkingDirectories, AreMadeForOneCallerAfterTheOther) {
  const TemporaryRoot root;
  PLGlobalConfiguration c(root.url());
  WatchedMakePath paths;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (const WorkingDirectory& d : kWorkingDirectories) {
        if (std::string_view(d.name) == "logDirectory") continue;  // takes no lock
        EXPECT_EQ(d.get(c).path(), root / d.path + "/");
        EXPECT_TRUE(std::filesystem::is_directory(root / d.path));
      }
      EXPECT_EQ(c.allFrameworksDirectories().size(), 4U);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(paths.overlapped);
}

TEST(FixedDirectories, AreNamedAndNeverMade) {
  const TemporaryRoot root;
  PLGlobalConfiguration c(root.url());
  const std::pair<Getter, const char*> rows[] = {
      {[](PLGlobalConfiguration& g) { return g.baseweaveDirectory(); },
       "System/Library/Baseweave/"},
      {[](PLGlobalConfiguration& g) { return g.systemAppsDirectory(); }, "Applications/"},
      {[](PLGlobalConfiguration& g) { return g.internalAppsDirectory(); },
       "OrlixInternal/Applications/"},
      {[](PLGlobalConfiguration& g) { return g.developerAppsDirectory(); },
       "Developer/Applications/"},
      {[](PLGlobalConfiguration& g) { return g.factoryMountDirectory(); },
       "private/var/factory_mount/"},
      {[](PLGlobalConfiguration& g) { return g.systemFrameworksRootDirectory(); },
       "System/Library/"},
      {[](PLGlobalConfiguration& g) { return g.internalFrameworksRootDirectory(); },
       "OrlixInternal/"},
      {[](PLGlobalConfiguration& g) { return g.developerFrameworksRootDirectory(); }, "Developer/"},
  };
  for (int call = 0; call < 2; ++call) {
    for (const auto& [get, path] : rows) EXPECT_EQ(get(c).path(), root / path);
    std::set<std::string> frameworks;
    for (const URL& url : c.allFrameworksDirectories()) frameworks.insert(url.path());
    EXPECT_EQ(frameworks,
              (std::set<std::string>{
                  root / "System/Library/Frameworks/", root / "System/Library/PrivateFrameworks/",
                  root / "OrlixInternal/Frameworks/", root / "OrlixInternal/PrivateFrameworks/"}));
  }
  EXPECT_TRUE(std::filesystem::is_empty(root.path()));
  PLGlobalConfiguration slash{URL()};
  EXPECT_EQ(slash.factoryMountDirectory().path(), "/private/var/factory_mount/");
}

}  // namespace
}  // namespace pallion::test
