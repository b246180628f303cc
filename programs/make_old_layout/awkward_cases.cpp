#include "programs/make_old_layout/awkward_cases.h"

#include <string>

#include "platform/bundle.h"
#include "programs/make_old_layout/places.h"

namespace pallion {

namespace {

constexpr char kMarkerName[] = "com.orlix.pallion.container_migrator.plist";

// What a case does to its container, beyond the bit of data that every one holds.
using Fill = void (*)(Directory& container, Pictures& pictures);

Bundle awkward(const char* name) { return {name, std::string("com.example.awkward.") + name}; }

// A container's own path on the device.
std::string pathOnDevice(const Directory& container) {
  return containerPath(container.path().substr(container.path().rfind('/') + 1));
}

constexpr Fill kContainers[] = {
    // Without a bundle that has an identifier: removed.
    [](Directory& container, Pictures&) { container.directory("NoInfo.app").file("code", ""); },
    [](Directory& container, Pictures&) {
      container.directory("DamagedInfo.app")
          .file("Info.plist", "<plist version=\"1.0\"><dict><key>");
    },
    [](Directory& container, Pictures&) {
      Directory app = container.directory("NoIdentifier.app");
      writeList(app, "Info.plist", {{kQXBundleVersion, Value::string("1.0")}}, ListFormat::kXML);
    },

    // A symbolic link where a bundle or the marker should be: left alone, and the run fails.
    [](Directory& container, Pictures&) { container.symbolicLink("Linked.app", "Elsewhere.app"); },
    [](Directory& container, Pictures& pictures) {
      writeApplication(container, awkward("LinkedPlugin"), pictures);
      container.symbolicLink("Linked.vpnplugin", "Elsewhere.vpnplugin");
    },
    [](Directory& container, Pictures& pictures) {
      writeApplication(container, awkward("LinkedMarker"), pictures);
      container.symbolicLink(kMarkerName, "elsewhere.plist");
    },

    // A marker that does not say what it should: left alone, and the run fails.
    [](Directory& container, Pictures& pictures) {
      writeApplication(container, awkward("DamagedMarker"), pictures);
      container.file(kMarkerName, "bplist00 and no more");
    },
    // One that does: resumed and migrated.
    [](Directory& container, Pictures& pictures) {
      const Bundle bundle = awkward("Resumed");
      writeApplication(container, bundle, pictures);
      const std::string path = pathOnDevice(container) + "/";
      writeList(container, kMarkerName,
                {{"ContainerPath", Value::string(path)},
                 {"BundlePath", Value::string(path + bundle.name + ".app/")},
                 {"BundleIdentifier", Value::string(bundle.identifier)},
                 {"ContainerType", Value::string("App")}},
                ListFormat::kXML);
    },

    // An item that has no place in the new layout: installed, but the container stays and the run
    // fails.
    [](Directory& container, Pictures& pictures) {
      writeApplication(container, awkward("Missed"), pictures);
      container.file("forgotten.txt", "belongs nowhere\n");
    },

    // Identifiers that would lead outside: the placeholder fails, the container stays, and the run
    // fails.
    [](Directory& container, Pictures& pictures) {
      writeApplication(container, {"Slash", "com.example/slash"}, pictures);
    },
    [](Directory& container, Pictures&) {
      Directory app = container.directory("Climber.app");
      writeList(app, "Info.plist", {{kQXBundleIdentifier, Value::string("..")}}, ListFormat::kXML);
    },

    // The installation is refused: the data is migrated, the container removed, and the run fails.
    [](Directory& container, Pictures&) {
      const Bundle bundle = awkward("NoExecutable");
      Directory app = container.directory(bundle.name + ".app");
      writeList(app, "Info.plist", infoDictionary(bundle), ListFormat::kXML);
    },
    // Older than the one that is built in: the data is migrated, and that is a success.
    [](Directory& container, Pictures& pictures) {
      writeApplication(container, {"Old Clock", kBuiltInIdentifier, "3.2"}, pictures);
    },

    // Names groups of which the map says nothing useful: they are passed over, and that is a
    // success.
    [](Directory& container, Pictures& pictures) {
      Bundle bundle = awkward("OddGroups");
      bundle.groups = {"group.awkward.text", "group.awkward.number", "group.awkward.missing"};
      writeApplication(container, bundle, pictures);
    },
};

}  // namespace

uint64_t writeAwkwardCases(Directory& containers, Dictionary& groups, Dictionary& harbors,
                           Pictures& pictures) {
  SeededRandom& random = containers.writer().random;
  for (const Fill fill : kContainers) {
    Directory container = containers.directory(random.uuid());
    fill(container, pictures);
    container.directory("Documents").randomFile("kept.dat", 100);
  }

  // Directly among the containers: the first three are removed, the link stays and makes the run
  // fail.
  containers.file("stray.txt", "no container\n");
  containers.file("WhereDidMyApplicationsGo.txt", "They have moved.\n");
  containers.directory(random.uuid());  // empty
  containers.symbolicLink("Shortcut", "../Library");
  constexpr uint64_t kDirectly = 4;

  groups.set("group.awkward.text", Value::string("no dictionary"));
  groups.set("group.awkward.number", Value::dictionary({{"Container", Value::integer(7)}}));
  groups.set("group.awkward.missing",
             Value::dictionary({{"Container", Value::string(groupPath(random.uuid()))}}));
  constexpr uint64_t kGroups = 3;

  // Malformed entries are dropped; the one whose directory is missing makes the run fail.
  harbors.set(Value::integer(5), Value::dictionary({}));
  harbors.set("com.example.awkward.text", Value::string("no dictionary"));
  harbors.set("com.example.awkward.pathless", Value::dictionary({}));
  harbors.set("com.example.awkward.missing",
              Value::dictionary({{"HarborPathKey", Value::string(harborPath("missing"))}}));
  constexpr uint64_t kHarbors = 4;

  return std::size(kContainers) + kDirectly + kGroups + kHarbors;
}

}  // namespace pallion
