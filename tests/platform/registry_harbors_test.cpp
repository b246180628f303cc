#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/installer_service.h"
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
  const struct {
    std::string path;
    std::string identifier;
  } kCases[] = {{root_ / "link", "com.a"}, {root_ / "link/", "com.a"},
                {root_ / "file", "com.a"}, {root_ / "none", "com.a"},
                {"real", "com.a"},         {"", "com.a"},
                {root_ / "real", ""},      {root_ / "real", "../com.a"},
                {root_ / "real", "a\nb"},  {root_.path(), "com.a"}};
  const TreeSnapshot before = snapshotTree(root_ / "real");
  for (const auto& [path, identifier] : kCases) {
    EXPECT_FALSE(registerHarbor(path, identifier)) << path << " " << identifier;
  }
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

// Copies and then fails, or fails to sync, or dies there.
class FailingCopy : public TreeCopy {
 public:
  int copy(const char* source, const char* destination) override {
    const int result = system().copy(source, destination);
    if (failsAt != 1) return result;
    errno = EIO;
    return -1;
  }
  int syncVolume(const char* path) override {
    if (failsAt == 3) _exit(0);
    if (failsAt != 2) return system().syncVolume(path);
    errno = EIO;
    return -1;
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
    root_.makeFile("other/staging/GeoJSON", "geo");
    FailingCopy failing;
    TreeCopy::replace(&failing);
    const TreeSnapshot before = snapshotTree(root_ / "other", {.ignoreTimes = true});
    for (failing.failsAt = 1; failing.failsAt <= 2; ++failing.failsAt) {
      EXPECT_EQ(install(root_ / "other/com.a.app", placeholderOptions("com.a")),
                "InstallationFailed");
      EXPECT_EQ(installBundle(root_ / "other/staging", "com.a"), "InstallationFailed");
      EXPECT_FALSE(registerHarbor(root_ / "other/harbor", "com.a"));
      TreeSnapshot after = snapshotTree(root_ / "other", {.ignoreTimes = true});
      // The install type, where the volume keeps attributes.
      after["staging/Payload/A.app"] = before.at("staging/Payload/A.app");
      EXPECT_EQ(difference(before, after), "");
      EXPECT_TRUE(namesIn(containers("/Incoming")).empty());
      EXPECT_TRUE(namesIn(library("/SafeHarbors")).empty());
    }
    EXPECT_FALSE(registry_->applicationIsInstalled("com.a"));
    registry_->close();
    for (const bool harbor : {false, true}) {
      const pid_t child = fork();
      if (child == 0) {
        harbor ? registerHarbor(root_ / "other/harbor", "com.a")
               : !installBundle(root_ / "other/staging", "com.a").empty();
        _exit(1);
      }
      int status = -1;
      waitpid(child, &status, 0);
      EXPECT_EQ(status, 0);
      EXPECT_EQ(namesIn(harbor ? library("/SafeHarbors") : containers("/Incoming")).size(), 1U);
      EXPECT_FALSE(registry_->applicationIsInstalled("com.a"));
      EXPECT_TRUE(namesIn(containers("/Incoming")).empty());
      EXPECT_TRUE(namesIn(library("/SafeHarbors")).empty());
      registry_->close();
    }
    TreeCopy::replace(nullptr);

    EXPECT_EQ(install(root_ / "other/com.a.app", placeholderOptions("com.a")), "");
    EXPECT_EQ(installBundle(root_ / "other/staging", "com.a"), "");
    EXPECT_TRUE(registerHarbor(root_ / "other/harbor", "com.a"));
    root_.makeFile("other/staging/GeoJSON", "late");
    EXPECT_EQ(installBundle(root_ / "other/staging", "com.a"), "");
    EXPECT_EQ(readAll(proxy("com.a").bundleContainerURL()->path() + "GeoJSON"), "late");
    EXPECT_EQ(readAll(proxy("com.a").bundleURL()->path() + "Run"), "code of com.a");
    EXPECT_EQ(readAll(harbors().front().path + "/data"), "kept");
    EXPECT_EQ(namesIn(root_ / "other"),
              Strings{"com.a.app"});  // a placeholder is its maker's to remove
    EXPECT_TRUE(namesIn(containers("/Incoming")).empty());
    registry_->close();
  }));
}

// The operations that clients call reach the registry at "/" unless there is a replacement.
TEST_F(RegistryHarbors, ExportedFunctionsAskTheServiceInUse) {
  root_.makeFile("harbor/data", "x");
  InstallerService* before = InstallerService::replace(registry_.get());
  EXPECT_EQ(before, &defaultRegistry());
  AppWorkspace::replace(registry_.get());
  EXPECT_NE(PallionRegisterSafeHarborForContainerType(root_ / "harbor", "com.a", 2, nullptr), 0);
  EXPECT_EQ(PallionRegisterSafeHarborForContainerType(root_ / "harbor", "com.b", 2, nullptr), 0);
  EXPECT_NE(PallionUpdateContainerDataProtectionForMigratorOnly({}), 0);
  EXPECT_TRUE(BundleProxy::bundleProxyForIdentifier("com.a"));
  EXPECT_EQ(harbors().size(), 1U);
  EXPECT_EQ(InstallerService::replace(before), registry_.get());
  EXPECT_EQ(AppWorkspace::replace(nullptr), registry_.get());
}

}  // namespace
}  // namespace pallion::test
