#include <cstdio>
#include <unistd.h>

#include "AppMigrator/plan_keys.h"
#include "platform/registry.h"
#include "tests/AppMigrator/migrator_fixture.h"
#include "tests/helpers/mounts.h"

namespace pallion::test {
namespace {

// Plans and runs with the embedded registry.
class PlanTest : public MigratorFixture {
 protected:
  ~PlanTest() override {
    AppWorkspace::replace(&installer);
    InstallerService::replace(&installer);
  }
  void use(Registry::Access access) {
    registry_ = Registry::atRoot(root.url(), access);
    AppWorkspace::replace(registry_.get());
    InstallerService::replace(registry_.get());
  }
  Dictionary plan() {
    use(Registry::Access::kReadOnly);
    return PLAppMigrator(configuration).migrationPlan().value_or(Dictionary());
  }
  bool migrate() {
    use(Registry::Access::kReadWrite);
    const bool result = run();
    registry_->close();
    return result;
  }
  static Dictionary entry(const Dictionary& owner, std::string_view key, size_t index) {
    return *owner.get(key).asArray()->at(index).asDictionary();
  }
  // The result that a plan foretells, which the run then has.
  void expectRun(bool result, const char* what) {
    EXPECT_EQ(plan().get(plan::kResult), Value::boolean(result)) << what;
    EXPECT_EQ(migrate(), result) << what;
  }

 private:
  std::unique_ptr<Registry> registry_;
};

TEST_F(PlanTest, TellsWhatIsCopiedAndWhetherItFits) {
  if (!canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  const auto body = [this] {
    const Mount volume =
        Mount::tmpfs(root.makeDirectory("private/var/palliond"), "size=8m,nr_inodes=2000");
    makeApplication("small", "com.example.small");
    const Dictionary small = plan();
    EXPECT_EQ(small.get(plan::kResult), Value::boolean(true));
    const Dictionary data = entry(entry(small, plan::kContainers, 0), plan::kItems, 0);
    EXPECT_EQ(data.get(plan::kAction), Value::string("copy"));
    EXPECT_EQ(data.get(plan::kEntries).int64Value(), 2);

    makeItem("large/Documents/film", std::string(9 << 20, 'x'));
    makeBundle("large", "Foo.app", "com.example.large");
    expectRun(false, "more than the volume holds");
    EXPECT_EQ(readAll(inApplications("large/Documents/film")).size(), size_t{9} << 20);
  };
  EXPECT_TRUE(runInMountNamespace(body));
}

TEST_F(PlanTest, CountsWhatTheRegistryWillHaveCompleted) {
  makeApplication("1", "com.example.one");
  ASSERT_TRUE(migrate());
  // A run that died between the taking over of the bundle and its record.
  makeItem("2/Library/left");
  Dictionary marker = markerFor("2", "Tunnel.vpnplugin", "com.example.two");
  marker.set(kContainerTypeKey, Value::string("VPNBundle"));
  makeMarker("2", marker);
  const std::string payload = root.makeDirectory(
      "private/var/palliond/Containers/Incoming/bundle.0123ABCD-0000-4000-8000-0123456789AB/"
      "Payload");
  makeBundle("3", "Tunnel.vpnplugin", "com.example.two");
  ASSERT_EQ(
      rename(inApplications("3/Tunnel.vpnplugin").c_str(), (payload + "/Tunnel.vpnplugin").c_str()),
      0);
  expectRun(true, "a completed installation");
}

TEST_F(PlanTest, ForetellsRunsThatTheRegistryRefuses) {
  root.makeLink(std::string(kApplications) + "/link", "away");
  expectRun(true, "nothing but a link");
  makeApplication("1", "com.example.one");
  root.makeDirectory("private/var/palliond/Containers/Data/0");
  ASSERT_EQ(unlink((root / "private/var/palliond/Library/Pallion/registry.sqlite").c_str()), 0);
  expectRun(false, "containers without their registry");
}

}  // namespace
}  // namespace pallion::test
