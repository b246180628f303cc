#include "platform/preferences.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/helpers/child_process.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/temporary_root.h"

namespace pallion {
namespace {

using test::exists;
using test::readAll;
using test::TemporaryRoot;

constexpr const char* kDomain = "com.orlix.test";

// The one file of kDomain; the directory when nothing was written.
std::string hostFile(const TemporaryRoot& root) {
  for (const auto& entry : std::filesystem::directory_iterator(root.makeDirectory("ByHost")))
    return entry.path();
  return root / "ByHost";
}

void become(uid_t user) { ASSERT_EQ(setresuid(user, user, user), 0); }

TEST(Preferences, AreSeenAtOnceHereAndByOthersOnceSynchronised) {
  const TemporaryRoot root;
  FilePreferences here(root.url());
  FilePreferences other(root.url());
  EXPECT_TRUE(here.synchronize(kDomain));
  EXPECT_EQ(hostFile(root), root / "ByHost") << "nothing was set";
  here.setValue("a", Value::integer(1), kDomain);
  here.setValue("b", Value::string("two"), kDomain);
  EXPECT_EQ(here.value("a", kDomain), Value::integer(1));
  EXPECT_FALSE(here.value("a", "com.orlix.other") || other.value("a", kDomain));
  EXPECT_TRUE(here.synchronize(kDomain));
  EXPECT_EQ(other.value("a", kDomain), Value::integer(1));
  other.setValue("a", Value(), kDomain);
  EXPECT_FALSE(other.value("a", kDomain));
  EXPECT_EQ(here.value("a", kDomain), Value::integer(1)) << "removed before it is stored";
  EXPECT_TRUE(other.synchronize(kDomain));
  EXPECT_FALSE(here.value("a", kDomain));
  EXPECT_EQ(here.value("b", kDomain), Value::string("two")) << "lost by storing other keys";
}

TEST(Preferences, OfProcessesThatStoreAtTheSameTimeAreAllKept) {
  constexpr int kProcesses = 4;
  constexpr int kKeys = 25;
  const TemporaryRoot root;
  for (int process = 0; process < kProcesses; ++process) {
    if (fork() != 0) continue;
    FilePreferences preferences(root.url());
    bool stored = true;
    for (int key = 0; key < kKeys; ++key) {
      preferences.setValue(std::to_string(process * kKeys + key), Value::integer(key), kDomain);
      stored = preferences.synchronize(kDomain) && stored;
    }
    _exit(stored ? 0 : 1);
  }
  for (int process = 0; process < kProcesses; ++process) {
    int status = 0;
    ASSERT_GT(wait(&status), 0);
    EXPECT_EQ(status, 0);
  }
  FilePreferences preferences(root.url());
  for (int key = 0; key < kProcesses * kKeys; ++key)
    EXPECT_TRUE(preferences.value(std::to_string(key), kDomain)) << key;
}

TEST(Preferences, ThatCannotBeStoredAreKeptForTheNextTime) {
  const TemporaryRoot root;
  root.makeFile("ByHost", "in the way");
  FilePreferences preferences(root.url());
  preferences.setValue("a", Value::integer(1), kDomain);
  EXPECT_FALSE(preferences.synchronize(kDomain));
  EXPECT_EQ(preferences.value("a", kDomain), Value::integer(1));
  ASSERT_EQ(unlink((root / "ByHost").c_str()), 0);
  EXPECT_TRUE(preferences.synchronize(kDomain));
  EXPECT_EQ(FilePreferences(root.url()).value("a", kDomain), Value::integer(1));

  for (const char* domain : {"", "..", "../outside", "a/b"}) {
    preferences.setValue("a", Value::integer(1), domain);
    EXPECT_FALSE(preferences.synchronize(domain)) << domain;
    EXPECT_FALSE(FilePreferences(root.url()).value("a", domain)) << domain;
    EXPECT_FALSE(preferences.suiteString(domain, "a")) << domain;
  }
}

TEST(Preferences, OfADamagedStoreAreAbsentUntilOneIsSet) {
  for (const std::string content : {"", "bplist00 and more", "<plist><array/></plist>"}) {
    const TemporaryRoot root;
    FilePreferences preferences(root.url());
    preferences.setValue("a", Value::integer(1), kDomain);
    ASSERT_TRUE(preferences.synchronize(kDomain));
    std::ofstream(hostFile(root)) << content;
    EXPECT_FALSE(preferences.value("a", kDomain));
    EXPECT_EQ(readAll(hostFile(root)), content);
    preferences.setValue("b", Value::integer(2), kDomain);
    EXPECT_TRUE(preferences.synchronize(kDomain));
    EXPECT_EQ(FilePreferences(root.url()).value("b", kDomain), Value::integer(2)) << content;
  }
}

TEST(Preferences, ThatCannotBeReadAreNotReplacedByLess) {
  if (!test::isRoot()) GTEST_SKIP() << "needs CAP_SETUID";
  const TemporaryRoot root;
  ASSERT_EQ(chmod(root.path().c_str(), 0777), 0);
  // A process of its own, since it can't become root again.
  EXPECT_TRUE(test::runInChild([&] {
    become(1234);
    FilePreferences preferences(root.url());
    preferences.setValue("a", Value::integer(1), kDomain);
    ASSERT_TRUE(preferences.synchronize(kDomain));
    const std::string file = hostFile(root);
    // The directory still lets this user replace the file.
    ASSERT_EQ(chmod(file.c_str(), 0), 0);
    EXPECT_FALSE(preferences.value("a", kDomain));
    preferences.setValue("b", Value::integer(2), kDomain);
    EXPECT_FALSE(preferences.synchronize(kDomain));
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    EXPECT_TRUE(preferences.synchronize(kDomain));
    EXPECT_EQ(preferences.value("a", kDomain), Value::integer(1));
    EXPECT_EQ(preferences.value("b", kDomain), Value::integer(2));
  }));
}

TEST(Preferences, BelongToAUserAndAHost) {
  if (!test::isRoot() || !test::canMount() || !exists("/etc/machine-id")) {
    GTEST_SKIP() << "needs root, CAP_SYS_ADMIN and a machine identifier to put another in place of";
  }
  const struct {
    const char* machine;  // content of the identifier's file; null: it can't be read
    const char* host;     // null: nothing can be stored
    uid_t user = 0;
  } cases[] = {
      {"0123abcd\n", "0123abcd", 1234}, {"../../x\n", "the-name"}, {nullptr, nullptr, 1234}};
  for (const auto& c : cases) {
    const TemporaryRoot root;
    const std::string identifier =
        root.makeFile("outside/machine-id", c.machine ? c.machine : "another");
    const std::string store = root.makeDirectory("store");
    for (const std::string& path : {root.path(), store}) ASSERT_EQ(chmod(path.c_str(), 0777), 0);
    ASSERT_EQ(chmod(identifier.c_str(), c.machine ? 0444 : 0), 0);
    EXPECT_TRUE(test::runInMountNamespace([&] {
      ASSERT_EQ(unshare(CLONE_NEWUTS), 0);
      ASSERT_EQ(sethostname("the-name", 8), 0);
      ASSERT_EQ(mount(identifier.c_str(), "/etc/machine-id", nullptr, MS_BIND, nullptr), 0);
      become(c.user);
      FilePreferences preferences(URL::fileURL(store, URL::Kind::kDirectory));
      preferences.setValue("a", Value::integer(1), "d");
      EXPECT_EQ(preferences.synchronize("d"), c.host != nullptr);
    }));
    if (c.host) {
      EXPECT_TRUE(exists(store + "/ByHost/d." + std::to_string(c.user) + "." + c.host + ".plist"));
    }
    EXPECT_EQ(exists(store + "/ByHost"), c.host != nullptr);
  }
}

}  // namespace
}  // namespace pallion
