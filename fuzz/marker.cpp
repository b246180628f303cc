#include "AppMigrator/container_info.h"
#include "foundation/property_list.h"
#include "fuzz/fuzz_target.h"
#include "fuzz/private_operations.h"
#include "tests/helpers/temporary_root.h"

// A container with an application and the input as its migration marker, looked at before a
// migration.

namespace pallion::fuzz {

namespace {

struct Device {
  test::TemporaryRoot root;
  PLGlobalConfiguration configuration{root.url()};
  std::string container = root.makeDirectory("private/var/mobile/Applications/1");
  std::string executable = root.makeFile("private/var/mobile/Applications/1/Foo.app/main", "code");
  Device() {
    writePropertyListFile(
        Value::dictionary({{kQXBundleIdentifier, Value::string("com.example.foo")}}),
        URL::fileURL(container + "/Foo.app/Info.plist"), PropertyListFormat::kBinary,
        Durability::kNotSynced);
  }
};

}  // namespace

void runInput(std::string_view input) {
  static const Device device;
  writeFile(device.container + "/" + std::string(kMigrationMarkerName), input);
  PLAppMigrator migrator(device.configuration);
  bool early = false;
  const std::optional<Dictionary> info = (migrator.*memberOf(IntrospectContainer()))(
      URL::fileURL(device.container, URL::Kind::kDirectory), early);
  require(test::exists(device.executable), "a bad marker costs no application");
  if (!info) return;
  for (const std::string_view key :
       {kContainerPathKey, kBundlePathKey, kBundleIdentifierKey, kContainerTypeKey}) {
    require(info->getString(key), "what is to be migrated is described whole");
  }
  const Value second = info->get(kSecondBundlePathKey);
  require(!second || second.asString(), "a second bundle is a path");
  require(early == (*info->getString(kContainerTypeKey) == kContainerTypeApp),
          "applications come first");
  // A description from a marker is that marker.
  const Value marker = readPropertyList(input);
  if (marker.asDictionary()) {
    require(*marker.asDictionary() == *info || !marker.asDictionary()->getString(kBundlePathKey),
            "a marker is taken as it is");
  }
}

}  // namespace pallion::fuzz
