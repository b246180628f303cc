#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/blkpg.h>
#include <linux/loop.h>
#include <map>
#include <sys/ioctl.h>

#include "configuration/global_configuration.h"
#include "foundation/unique_descriptor.h"
#include "platform/device_registry.h"
#include "platform/mount_table.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {
namespace {

using Paths = std::vector<std::string>;
using MountedFileSystems = std::optional<std::vector<MountedFileSystem>>;

struct Node {
  std::string_view className;
  const char* device = nullptr;
  std::vector<Node> below = {};
  bool refusesWalk = false;
};

// Devices as a test lays them out. Every object that it gives has to come back, once, and is of no
// use from then on.
class FakeDevices : public DeviceRegistry {
 public:
  explicit FakeDevices(Node controller) : controller_(std::move(controller)) { replace(this); }
  ~FakeDevices() override {
    replace(nullptr);
    EXPECT_TRUE(objects_.empty()) << objects_.size() << " objects were not released";
  }
  DevObject findFirstService(std::string_view className) override {
    return className == controller_.className ? add({&controller_}) : 0;
  }
  int walkOpen(DevObject entry, DevWalk walk, DevObject& iterator) override {
    const Node& node = *objects_.at(entry).front();
    if (node.refusesWalk) return 0x2C5;
    Nodes walked;
    gather(node, walk, walked);
    iterator = add({walked.rbegin(), walked.rend()});
    return 0;
  }
  DevObject walkNext(DevObject iterator) override {
    Nodes& walk = objects_.at(iterator);
    if (walk.empty()) return 0;
    const Node* node = walk.back();
    walk.pop_back();
    return add({node});
  }
  bool conformsTo(DevObject entry, std::string_view className) override {
    return objects_.at(entry).front()->className == className;
  }
  Value copyProperty(DevObject entry, std::string_view name) override {
    const Node& node = *objects_.at(entry).front();
    return name == kDeviceNodeName && node.device ? Value::string(node.device) : Value();
  }
  void release(DevObject object) override { EXPECT_EQ(objects_.erase(object), 1U); }

 private:
  using Nodes = std::vector<const Node*>;  // an entry, or what an iterator has to come, last first
  static void gather(const Node& node, DevWalk walk, Nodes& out) {
    for (const Node& below : node.below) {
      out.push_back(&below);
      if (walk == DevWalk::kDescendants) gather(below, walk, out);
    }
  }
  DevObject add(Nodes nodes) {
    objects_.emplace(++last_, std::move(nodes));
    return last_;
  }

  Node controller_;
  std::map<DevObject, Nodes> objects_;
  DevObject last_ = 40;
};

class FakeMountTable : public MountTable {
 public:
  explicit FakeMountTable(MountedFileSystems table) : table_(std::move(table)) { replace(this); }
  ~FakeMountTable() override { replace(nullptr); }
  MountedFileSystems mountedFileSystems() override {
    if (!table_) errno = EMFILE;
    return table_;
  }

 private:
  MountedFileSystems table_;
};

Node drive(std::vector<Node> below, bool refusesWalk = false) {
  return {kDiskImageDrive, nullptr, std::move(below), refusesWalk};
}
Node medium(const char* device, std::vector<Node> below = {}) {
  return {kStorageMedia, device, std::move(below)};
}
Node other(std::vector<Node> below, bool refusesWalk = false) {
  return {"Other", nullptr, std::move(below), refusesWalk};
}

TEST(DiskImages, AreFoundWhereTheirMediaAreMounted) {
  const std::vector<Node> entries = {
      drive({medium("d9", {medium("d1")})}),                  // a partition of an unmounted medium
      drive({medium("d3"), medium("d1")}),                    // the first of two mounted media
      drive({medium(nullptr), medium("d1")}),                 // the first has no name
      drive({Node{"Partition scheme", "d1"}, medium("d2")}),  // the first is no medium
      drive({medium("d")}),                                   // only the beginning of a name
      drive({medium("d1")}, true),
      other({drive({medium("d9")}), other({drive({medium("d2")})}), drive({medium("d3")})}),
      other({drive({medium("d1")})}, true),
      medium("d1"),  // without a drive
  };
  const std::string found = "3 -[PLGlobalConfiguration mountPointForDevice:]: ";
  const std::string all = "3 -[PLGlobalConfiguration diskImageMountPoints]: ";
  const MountedFileSystems table{{{"d1", "/not below dev"},
                                  {"/dev/d1", "/one"},
                                  {"/dev/d2", "/two"},
                                  {"/dev/d3", "/three"},
                                  {"/dev/d3", "/three again"}}};
  const struct {
    const char* what;
    Node controller;
    MountedFileSystems table;
    Paths points;
    Paths lines;  // their beginnings
  } cases[] = {
      {"no driver", {"Another driver", nullptr, entries}, table, {}, {}},
      {"the controller can't be walked",
       {kDiskImageController, nullptr, entries, true},
       table,
       {},
       {all + "unable to create controller child iterator: error 0x000002C5 (709)"}},
      {"no mount table",
       {kDiskImageController, nullptr, {drive({medium("d1")}), drive({medium("d2")})}},
       std::nullopt,
       {},
       Paths(2, found + "getmntinfo failed: Too many open files")},
      {"all kinds of entries",
       {kDiskImageController, nullptr, entries},
       table,
       {"/one", "/three", "/one", "/two", "/two"},
       {found + "DevWalkOpen failed for deviceObj ("}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const FakeMountTable mounts(c.table);
    const FakeDevices devices(c.controller);
    const RecordedProductLog log;
    EXPECT_EQ(PLGlobalConfiguration(URL()).diskImageMountPoints(), c.points);
    ASSERT_EQ(log.lines.size(), c.lines.size());
    for (size_t i = 0; i < c.lines.size(); ++i) {
      EXPECT_TRUE(log.lines[i].starts_with(c.lines[i])) << log.lines[i];
    }
  }
}

TEST(DiskImages, HaveApplicationsWhereTheyAreMountedTheLaterFirst) {
  const TemporaryRoot root;
  const auto makeApplication = [&](const std::string& path, const char* identifier) {
    root.makeFile(
        path + "/Info.plist",
        std::string("<plist version=\"1.0\"><dict><key>QXBundleIdentifier</key><string>") +
            identifier + "</string></dict></plist>");
    return root / (path + "/");
  };
  makeApplication("1/Applications/A.app", "a");
  const std::string own = makeApplication("1/Applications/B.app", "b");
  const std::string later = makeApplication("2/Applications/Other.app", "a");
  const FakeMountTable mounts({{{"/dev/d1", root / "1"},
                                {"/dev/d2", root / "2"},
                                {"/dev/d3", "/private/var/debug_mount2"},
                                {"/dev/d4", "/private/var/debug_moun"},
                                {"/dev/d5", root / "Developer"}}});
  Node controller{kDiskImageController};
  for (const char* name : {"d1", "d2", "d3", "d4", "d5"}) {
    controller.below.push_back(drive({medium(name)}));
  }
  const FakeDevices devices(controller);
  PLGlobalConfiguration c(root.url());
  RecordedProductLog log(kLogDebug);
  Paths directories;
  for (const URL& url : c.diskImageApplicationsDirectories()) directories.push_back(url.path());
  // That of the developers counts once.
  EXPECT_EQ(directories,
            (Paths{root / "1/Applications/", root / "2/Applications/",
                   "/private/var/debug_moun/Applications/", root / "Developer/Applications/"}));
  ASSERT_EQ(log.lines.size(), 1U);
  const std::string line =
      "7 -[PLGlobalConfiguration diskImageApplicationsDirectories]: returning: (file://";
  EXPECT_TRUE(log.lines[0].starts_with(line + (root / "1/Applications/, "))) << log.lines[0];
  const auto locationOf = [&](const char* identifier) {
    const Value info = c.diskImageAppBundleIDToInfoMap().get(identifier);
    return info ? *info.asDictionary()->getString(PLGlobalConfiguration::kBundleURLKey) : "";
  };
  EXPECT_EQ(locationOf("a"), later);
  EXPECT_EQ(locationOf("b"), own);
  const std::string developer = makeApplication("Developer/Applications/D.app", "a");
  EXPECT_EQ(locationOf("a"), developer);
}

TEST(DiskImages, AreLoopDevicesWithTheirPartitionsInOrder) {
  if (!canMountImages()) GTEST_SKIP() << "needs CAP_SYS_ADMIN, loop devices and mkfs.ext4";
  const TemporaryRoot root;
  // Characters that the mount table escapes.
  const std::string point = root.makeDirectory("a b#\\c\td");
  const bool passed = runInMountNamespace([&] {
    const PLGlobalConfiguration c(root.url());
    const Paths before = c.diskImageMountPoints();  // others may have images attached
    const Mount image = Mount::ext4Image(root / "image", point, 16);
    ASSERT_TRUE(image.mounted());
    const Paths points = c.diskImageMountPoints();
    EXPECT_EQ(points.size(), before.size() + 1);
    EXPECT_NE(std::find(points.begin(), points.end(), point), points.end());

    std::string device;
    const MountedFileSystems table = MountTable::current().mountedFileSystems();
    for (const MountedFileSystem& mounted : *table) {
      if (mounted.on == point) device = mounted.from;
    }
    // Tells the kernel of partitions, without a table in the image: not every kernel reads tables.
    const UniqueDescriptor loop(open(device.c_str(), O_RDWR | O_CLOEXEC));
    loop_info64 info{};
    ASSERT_EQ(ioctl(loop.get(), LOOP_GET_STATUS64, &info), 0) << device;
    info.lo_flags |= LO_FLAGS_PARTSCAN;  // with it, they go when the device does
    ASSERT_EQ(ioctl(loop.get(), LOOP_SET_STATUS64, &info), 0);
    Paths expected{device.substr(std::string_view("/dev/").size())};
    for (int number = 1; number <= 10; ++number) {
      blkpg_partition partition{};
      partition.start = number * (1LL << 20);
      partition.length = 1 << 20;
      partition.pno = number;
      blkpg_ioctl_arg argument{BLKPG_ADD_PARTITION, 0, sizeof partition, &partition};
      ASSERT_EQ(ioctl(loop.get(), BLKPG, &argument), 0) << errno;
      expected.push_back(expected[0] + "p" + std::to_string(number));
    }
    const DevObject controller = DevFindFirstService(kDiskImageController);
    DevObject iterator = 0;
    ASSERT_EQ(DevWalkOpen(controller, DevWalk::kDescendants, iterator), 0);
    Paths media;
    while (const DevObject next = DevWalkNext(iterator)) {
      const Value name = DevCopyProperty(next, kDeviceNodeName);
      if (DevConformsTo(next, kStorageMedia)) media.push_back(*name.asString());
      DevRelease(next);
    }
    EXPECT_NE(std::search(media.begin(), media.end(), expected.begin(), expected.end()),
              media.end());
    for (const DevObject object : {iterator, controller}) DevRelease(object);
    EXPECT_NE(DevWalkOpen(controller, DevWalk::kChildren, iterator), 0) << "released";
  });
  EXPECT_TRUE(passed);
}

}  // namespace
}  // namespace pallion::test
