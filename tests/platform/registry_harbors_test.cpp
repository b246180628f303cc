#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

#include "platform/protection_class.h"
#include "platform/tree_copy.h"
#include "tests/helpers/mounts.h"
#include "tests/platform/registry_fixture.h"

namespace pallion::test {
namespace {

class RegistryHarbors : public RegistryTest {
 protected:
  bool registerHarbor(const std::string& path, const std::string& identifier, int type = 2) {
    return registry_->registerSafeHarbor(path, identifier, type, nullptr);
  }
  std::vector<SafeHarborRecord> harbors() { return registry_->allSafeHarbors(nullptr).value(); }
};

TEST_F(RegistryHarbors, RegisteredRepeatedAndReplaced) {
  root_.makeFile("one/data", "first");
  const std::string one = root_ / "one";
  ASSERT_TRUE(registerHarbor(one + "/", "com.a"));
  EXPECT_FALSE(exists(one));
  ASSERT_EQ(harbors().size(), 1U);
  const SafeHarborRecord first = harbors().front();
  EXPECT_EQ(first.identifier, "com.a");
  EXPECT_EQ(first.containerType, 2);
  EXPECT_EQ(readAll(first.path + "/data"), "first");
  // The same again, when it has been taken: only for its identifier, from its place, and while it
  // stands.
  EXPECT_TRUE(registerHarbor(one, "com.a"));
  EXPECT_FALSE(registerHarbor(one, "com.b"));
  EXPECT_FALSE(registerHarbor(root_ / "two", "com.a"));
  std::filesystem::rename(first.path, root_ / "lost");
  EXPECT_FALSE(registerHarbor(one, "com.a"));
  std::filesystem::rename(root_ / "lost", first.path);
  root_.makeFile("two/data", "second");
  ASSERT_TRUE(registerHarbor(root_ / "two", "com.a", 3));
  ASSERT_EQ(harbors().size(), 1U);
  EXPECT_EQ(harbors().front().containerType, 3);
  EXPECT_EQ(readAll(harbors().front().path + "/data"), "second");
  EXPECT_EQ(namesIn(library("/SafeHarbors")).size(), 1U);
}

TEST_F(RegistryHarbors, RefusalsLeaveThePath) {
  root_.makeFile("real/data", "x");
  root_.makeFile("file", "x");
  root_.makeLink("link", "real");
  const std::pair<std::string, std::string> kCases[] = {{root_ / "link/", "com.a"},
                                                        {root_ / "file", "com.a"},
                                                        {root_ / "none", "com.a"},
                                                        {"real", "com.a"},
                                                        {"", "com.a"},
                                                        {root_.path(), "com.a"},
                                                        {root_ / "real", ""},
                                                        {root_ / "real", "../a"},
                                                        {root_ / "real", "a\nb"}};
  const TreeSnapshot before = snapshotTree(root_ / "real");
  for (const auto& [path, identifier] : kCases)
    EXPECT_FALSE(registerHarbor(path, identifier)) << path << " " << identifier;
  EXPECT_EQ(difference(before, snapshotTree(root_ / "real")), "");
  EXPECT_TRUE(exists(root_ / "link"));
  reopen();
  EXPECT_TRUE(harbors().empty());
}

int protectionClassOf(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const int answer = ProtectionClass::current().get(descriptor);
  close(descriptor);
  return answer;
}

TEST_F(RegistryHarbors, DataProtectionOfEveryDataContainer) {
  makeBuiltIn("com.builtin", "1");
  const Dictionary all{{kPLUpdateSystemAppDataContainerDataProtection, Value::boolean(true)}};
  std::vector<std::string> paths;
  for (const char* identifier : {"com.a", "com.builtin", "com.c"}) {
    paths.push_back(proxy(identifier).dataContainerURL()->path());
  }
  std::filesystem::remove_all(paths[0]);
  EXPECT_TRUE(registry_->updateContainerDataProtection({}));
  for (size_t i = 0; i < paths.size(); ++i)
    EXPECT_EQ(protectionClassOf(paths[i]), i == 1 ? 0 : 4) << i;
  EXPECT_TRUE(registry_->updateContainerDataProtection(all));
  EXPECT_EQ(protectionClassOf(paths[1]), 4);
  // A link in a container's place is not followed; the others are still done.
  for (const std::string& path : paths) std::filesystem::remove_all(path);
  std::filesystem::create_directory_symlink(root_.makeDirectory("outside"),
                                            paths[0].substr(0, paths[0].size() - 1));
  EXPECT_FALSE(registry_->updateContainerDataProtection(all));
  EXPECT_EQ(protectionClassOf(root_ / "outside"), 0);
  EXPECT_EQ(protectionClassOf(paths[1]) + protectionClassOf(paths[2]), 8);
}

// Copies and then fails, or fails to sync.
class FailingCopy : public TreeCopy {
 public:
  int copy(const char* source, const char* destination) override {
    const int result = system().copy(source, destination);
    return failsAt == 1 ? (errno = EIO, -1) : result;
  }
  int syncVolume(const char* path) override {
    return failsAt == 2 ? (errno = EIO, -1) : system().syncVolume(path);
  }
  int syncCopies(const char* path) override { return system().syncCopies(path); }
  int failsAt = 0;
};

// Everything that is installed comes from another volume.
TEST_F(RegistryHarbors, FromAnotherVolume) {
  if (!canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  root_.makeDirectory("other");
  EXPECT_TRUE(runInMountNamespace([this] {
    const Mount other = Mount::tmpfs(root_ / "other");
    ASSERT_TRUE(other.mounted());
    makeBundle(root_ / "other/com.a.app", {"com.a", "1", ""});
    root_.makeFile("other/harbor/data", "kept");
    makeStaging("other/staging", "A.app", {"com.a"});
    FailingCopy failing;
    TreeCopy::replace(&failing);
    const TreeSnapshot before = snapshotTree(root_ / "other", {.ignoreTimes = true});
    for (failing.failsAt = 1; failing.failsAt <= 3; ++failing.failsAt) {
      const std::string expected = failing.failsAt < 3 ? "InstallationFailed" : "";
      EXPECT_EQ(install(root_ / "other/com.a.app", placeholderOptions("com.a")), expected);
      EXPECT_EQ(installBundle(root_ / "other/staging", "com.a"), expected);
      EXPECT_EQ(registerHarbor(root_ / "other/harbor", "com.a"), expected.empty());
      EXPECT_TRUE(namesIn(containers("/Incoming")).empty());
      if (expected.empty()) break;
      TreeSnapshot after = snapshotTree(root_ / "other", {.ignoreTimes = true});
      // The install type, where the volume keeps attributes.
      after["staging/Payload/A.app"] = before.at("staging/Payload/A.app");
      EXPECT_EQ(difference(before, after), "");
      EXPECT_TRUE(namesIn(library("/SafeHarbors")).empty());
      EXPECT_FALSE(registry_->applicationIsInstalled("com.a"));
    }
    TreeCopy::replace(nullptr);
    EXPECT_EQ(readAll(proxy("com.a").bundleURL()->path() + "Run"), "code of com.a");
    EXPECT_EQ(readAll(harbors().front().path + "/data"), "kept");
    // A placeholder is its maker's to remove.
    EXPECT_EQ(namesIn(root_ / "other"), Strings{"com.a.app"});
    registry_->close();
  }));
}

}  // namespace
}  // namespace pallion::test
