#include <filesystem>
#include <unistd.h>

#include "AppMigrator/plan_keys.h"
#include "platform/registry.h"
#include "tests/AppMigrator/migrator_fixture.h"

namespace pallion::test {
namespace {

class PlanTest : public MigratorFixture {
 protected:
  // With the embedded registry: what a plan foretells, and what the run then answers.
  void expectRun(bool result, const char* what) {
    for (const auto access : {Registry::Access::kReadOnly, Registry::Access::kReadWrite}) {
      const std::unique_ptr<Registry> registry = Registry::atRoot(root.url(), access);
      AppWorkspace::replace(registry.get());
      InstallerService::replace(registry.get());
      if (access == Registry::Access::kReadWrite) {
        EXPECT_EQ(run(), result) << what;
      } else {
        const auto foretold = PLAppMigrator(configuration).migrationPlan().value_or(Dictionary());
        EXPECT_EQ(foretold.get(plan::kResult), Value::boolean(result)) << what;
      }
    }
    AppWorkspace::replace(&installer);
    InstallerService::replace(&installer);
  }
};

TEST_F(PlanTest, CountsWhatTheRegistryWillHaveCompleted) {
  makeApplication("1", "com.example.one");
  expectRun(true, "an application");
  // A run that died between the taking over of the bundle and its record.
  makeItem("2/Library/left");
  Dictionary marker = markerFor("2", "Tunnel.vpnplugin", "com.example.two");
  marker.set(kContainerTypeKey, Value::string("VPNBundle"));
  makeMarker("2", marker);
  makeBundle("3/Payload", "Tunnel.vpnplugin", "com.example.two");
  const std::string incoming = root.makeDirectory("private/var/palliond/Containers/Incoming");
  std::filesystem::rename(inApplications("3"),
                          incoming + "/bundle.0123ABCD-0000-4000-8000-0123456789AB");
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
