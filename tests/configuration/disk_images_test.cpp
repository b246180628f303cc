#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <linux/blkpg.h>
#include <linux/loop.h>
#include <map>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "configuration/global_configuration.h"
#include "foundation/property_list.h"
#include "foundation/unique_descriptor.h"
#include "platform/bundle.h"
#include "platform/device_registry.h"
#include "platform/mount_table.h"
#include "tests/helpers/child_process.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {
namespace {

using Paths = std::vector<std::string>;

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
    return className == controller_.className ? add({&controller_, {}}) : 0;
  }
  int walkOpen(DevObject entry, DevWalk walk, DevObject& iterator) override {
    const Node& node = *objects_.at(entry).node;
    if (node.refusesWalk) return 0x2C5;
    Object walked{nullptr, {}};
    gather(node, walk, walked.walk);
    std::reverse(walked.walk.begin(), walked.walk.end());
    iterator = add(std::move(walked));
    return 0;
  }
  DevObject walkNext(DevObject iterator) override {
    std::vector<const Node*>& walk = objects_.at(iterator).walk;
    if (walk.empty()) return 0;
    const Node* node = walk.back();
    walk.pop_back();
    return add({node, {}});
  }
  bool conformsTo(DevObject entry, std::string_view className) override {
    return objects_.at(entry).node->className == className;
  }
  Value copyProperty(DevObject entry, std::string_view name) override {
    const Node& node = *objects_.at(entry).node;
    return name == kDeviceNodeName && node.device ? Value::string(node.device) : Value();
  }
  void release(DevObject object) override { EXPECT_EQ(objects_.erase(object), 1U); }

 private:
  struct Object {
    const Node* node;
    std::vector<const Node*> walk;  // of an iterator: what is still to come, the next one last
  };
  static void gather(const Node& node, DevWalk walk, std::vector<const Node*>& out) {
    for (const Node& below : node.below) {
      out.push_back(&below);
      if (walk == DevWalk::kDescendants) gather(below, walk, out);
    }
  }
  DevObject add(Object object) {
    objects_.emplace(++last_, std::move(object));
    return last_;
  }

  Node controller_;
  std::map<DevObject, Object> objects_;
  DevObject last_ = 40;
};

class FakeMountTable : public MountTable {
 public:
  explicit FakeMountTable(std::optional<std::vector<MountedFileSystem>> table)
      : table_(std::move(table)) {
    replace(this);
  }
  ~FakeMountTable() override { replace(nullptr); }
  std::optional<std::vector<MountedFileSystem>> mountedFileSystems() override {
    if (!table_) errno = EMFILE;
    return table_;
  }

 private:
  std::optional<std::vector<MountedFileSystem>> table_;
};

Node controller(std::vector<Node> below, bool refusesWalk = false) {
  return {kDiskImageController, nullptr, std::move(below), refusesWalk};
}
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
  struct Case {
    const char* what;
    Node controller;
    Paths points;
    Paths lines = {};
  };
  const std::string refused =
      "3 -[PLGlobalConfiguration mountPointForDevice:]: DevWalkOpen failed for deviceObj (";
  const Case cases[] = {
      {"no driver", Node{"Another driver"}, {}},
      {"no image", controller({}), {}},
      {"the controller can't be walked",
       controller({drive({medium("d1")})}, true),
       {},
       {"3 -[PLGlobalConfiguration diskImageMountPoints]: unable to create controller child "
        "iterator: error 0x000002C5 (709)"}},
      {"two drives", controller({drive({medium("d2")}), drive({medium("d1")})}), {"/two", "/one"}},
      {"a partition of an unmounted medium",
       controller({drive({medium("d9", {medium("d1")})})}),
       {"/one"}},
      {"the first of two mounted media, at its first place in the table",
       controller({drive({medium("d3"), medium("d1")})}),
       {"/three"}},
      {"only media with a name", controller({drive({medium(nullptr), medium("d1")})}), {"/one"}},
      {"only media", controller({drive({Node{"Partition scheme", "d1"}, medium("d2")})}), {"/two"}},
      {"not the beginning of a name", controller({drive({medium("d")})}), {}},
      {"a drive that can't be walked, and one that can",
       controller({drive({medium("d1")}, true), drive({medium("d2")})}),
       {"/two"},
       {refused + "43)"}},
      {"drives below something else: the first that is mounted",
       controller({other({drive({medium("d9")}), drive({medium("d1")}), drive({medium("d2")})}),
                   drive({medium("d3")})}),
       {"/one", "/three"}},
      {"deep below something else",
       controller({other({other({drive({medium("d1")})})})}),
       {"/one"}},
      {"something else that can't be walked",
       controller({other({drive({medium("d1")})}, true), drive({medium("d2")})}),
       {"/two"}},
      {"media without a drive", controller({medium("d1"), other({medium("d2")})}), {}},
  };
  const FakeMountTable table({{{"d1", "/not below dev"},
                               {"/dev/d1", "/one"},
                               {"/dev/d2", "/two"},
                               {"/dev/d3", "/three"},
                               {"/dev/d3", "/three again"}}});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const FakeDevices devices(c.controller);
    const RecordedProductLog log;
    EXPECT_EQ(PLGlobalConfiguration(URL()).diskImageMountPoints(), c.points);
    EXPECT_EQ(log.lines, c.lines);
  }
}

TEST(DiskImages, AreNotFoundWithoutAMountTable) {
  const FakeDevices devices(controller({drive({medium("d1")}), drive({medium("d2")})}));
  const FakeMountTable table(std::nullopt);
  const RecordedProductLog log;
  EXPECT_EQ(PLGlobalConfiguration(URL()).diskImageMountPoints(), Paths{});
  const std::string line =
      "3 -[PLGlobalConfiguration mountPointForDevice:]: getmntinfo failed: Too many open files";
  EXPECT_EQ(log.lines, (Paths{line, line}));
}

TEST(DiskImages, HaveApplicationsWhereTheyAreMounted) {
  struct Case {
    Paths points;
    Paths directories;
  };
  const char* const kDeveloper = "/Developer/Applications/";
  const Case cases[] = {
      {{}, {kDeveloper}},
      {{"/a", "/b c/"}, {"/a/Applications/", "/b c/Applications/", kDeveloper}},
      {{"/"}, {"/Applications/", kDeveloper}},
      {{"/Developer"}, {kDeveloper}},
      {{"/Developer", "/a"}, {kDeveloper, "/a/Applications/"}},
      {{"/a", "/a"}, {"/a/Applications/", "/a/Applications/", kDeveloper}},
      {{"/private/var/debug_mount", "/private/var/debug_mount2", "/private/var/debug_mount/x",
        "/private/var/debug_moun", "/var/debug_mount"},
       {"/private/var/debug_moun/Applications/", "/var/debug_mount/Applications/", kDeveloper}},
  };
  for (const Case& c : cases) {
    std::vector<MountedFileSystem> table;
    std::vector<Node> drives;
    Paths names(c.points.size());
    for (size_t i = 0; i < names.size(); ++i) {
      names[i] = "d" + std::to_string(i);
      table.push_back({"/dev/" + names[i], c.points[i]});
      drives.push_back(drive({medium(names[i].c_str())}));
    }
    table.push_back({"proc", "/proc"});
    const FakeMountTable mounts(table);
    const FakeDevices devices(controller(drives));
    const RecordedProductLog log(kLogDebug);
    Paths directories;
    std::string printed;
    for (const URL& url : PLGlobalConfiguration(URL()).diskImageApplicationsDirectories()) {
      directories.push_back(url.path());
      printed += (printed.empty() ? "" : ", ") + url.absoluteString();
    }
    EXPECT_EQ(directories, c.directories);
    EXPECT_EQ(log.lines, Paths{"7 -[PLGlobalConfiguration diskImageApplicationsDirectories]: "
                               "returning: (" +
                               printed + ")"});
  }
}

// Makes <directory>/Applications/<name>.app.
std::string makeApplication(const std::string& directory, const std::string& name,
                            const std::string& identifier) {
  const std::string path = directory + "/Applications/" + name + ".app";
  std::filesystem::create_directories(path);
  const Dictionary info{{"QXBundleIdentifier", Value::string(identifier)}};
  EXPECT_EQ(writePropertyListFile(Value::dictionary(info), URL::fileURL(path + "/Info.plist"),
                                  PropertyListFormat::kXML, Durability::kNotSynced),
            0);
  return path + "/";
}

std::string locationOf(const Dictionary& map, const char* identifier) {
  const Value info = map.get(identifier);
  return info ? *info.asDictionary()->getString(PLGlobalConfiguration::kBundleURLKey) : "";
}

TEST(DiskImages, GiveApplicationsOnEveryCallTheLaterImageFirst) {
  const TemporaryRoot root;
  makeApplication(root / "1", "A", "a");
  const std::string own = makeApplication(root / "1", "B", "b");
  const std::string later = makeApplication(root / "2", "Other", "a");
  const FakeMountTable mounts({{{"/dev/d1", root / "1"}, {"/dev/d2", root / "2"}}});
  const FakeDevices devices(controller({drive({medium("d1")}), drive({medium("d2")})}));
  PLGlobalConfiguration c(root.url());
  EXPECT_EQ(locationOf(c.diskImageAppBundleIDToInfoMap(), "a"), later);
  EXPECT_EQ(locationOf(c.diskImageAppBundleIDToInfoMap(), "b"), own);
  const std::string developer = makeApplication(root / "Developer", "D", "a");
  EXPECT_EQ(locationOf(c.diskImageAppBundleIDToInfoMap(), "a"), developer);
  EXPECT_EQ(c.builtInApplicationBundleIDs(), (std::set<std::string>{"a", "b"}));
}

// --- Real disk images, attached as loop devices in a mount namespace with a /dev of its own.

constexpr size_t kPartitionSize = 4 << 20;

// An image attached to a loop device; detached when it is unmounted and this object is gone.
class AttachedImage {
 public:
  explicit AttachedImage(const std::string& image) {
    const UniqueDescriptor control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    const UniqueDescriptor file(open(image.c_str(), O_RDWR | O_CLOEXEC));
    loop_config config{};
    config.fd = static_cast<uint32_t>(file.get());
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR | LO_FLAGS_PARTSCAN;
    // Another process may take the free device first.
    for (int attempt = 0; attempt < 20 && !attached_; ++attempt) {
      const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
      if (number < 0) break;
      name_ = "loop" + std::to_string(number);
      const std::string path = node(name_);
      device_.reset(open(path.c_str(), O_RDWR | O_CLOEXEC));
      attached_ = device_ && ioctl(device_.get(), LOOP_CONFIGURE, &config) == 0;
    }
    if (!attached_) std::perror(image.c_str());
  }
  [[nodiscard]] bool attached() const { return attached_; }

  // Tells the kernel of partitions, without a table in the image: not every kernel reads tables.
  [[nodiscard]] bool addPartitions(int partitions) const {
    for (int number = 1; number <= partitions; ++number) {
      blkpg_partition partition{};
      partition.start = number * static_cast<long long>(kPartitionSize);
      partition.length = kPartitionSize;
      partition.pno = number;
      blkpg_ioctl_arg argument{BLKPG_ADD_PARTITION, 0, sizeof partition, &partition};
      if (ioctl(device_.get(), BLKPG, &argument) != 0) return false;
    }
    return true;
  }

  // The device node of its partition, or of the whole device for 0. Nothing makes the nodes of
  // partitions where no device manager runs.
  [[nodiscard]] std::string media(int partition) const {
    if (partition == 0) return node(name_);
    return node(name_, "p" + std::to_string(partition));
  }

 private:
  static std::string node(const std::string& device, const std::string& partition = "") {
    std::string path = "/dev/" + device + partition;
    if (exists(path)) return path;
    const std::string below = partition.empty() ? "" : "/" + device + partition;
    unsigned major = 0;
    unsigned minor = 0;
    const std::string numbers = readAll("/sys/block/" + device + below + "/dev");
    if (std::sscanf(numbers.c_str(), "%u:%u", &major, &minor) == 2) {
      mknod(path.c_str(), S_IFBLK | 0600, makedev(major, minor));
    }
    return path;
  }

  std::string name_;
  UniqueDescriptor device_;
  bool attached_ = false;
};

// An image whose last partition, or all of which when it has none, is an ext4 file system.
std::string makeImage(const TemporaryRoot& root, const std::string& name, size_t partitions) {
  std::string path = root.makeFile(name);
  std::filesystem::resize_file(path, (partitions + 1) * kPartitionSize);
  ChildProcess::Setup setup;
  const std::string offset = std::to_string(partitions * kPartitionSize);
  setup.arguments = {"/sbin/mkfs.ext4",
                     "-q",
                     "-F",
                     "-E",
                     "offset=" + offset,
                     path,
                     std::to_string(kPartitionSize / 1024)};
  const ProcessOutcome made = runProcess(setup);
  EXPECT_EQ(made.status, 0) << made.err;
  return path;
}

bool canAttachImages() {
  if (!canMountImages()) return false;
  const TemporaryRoot root;
  const std::string image = root.makeFile("image", std::string(512, '\0'));
  return AttachedImage(image).attached();
}

// A /dev of this namespace's own with the nodes that are needed here.
void makeOwnDevices() {
  struct stat control {};
  ASSERT_EQ(stat("/dev/loop-control", &control), 0);
  ASSERT_EQ(mount("test", "/dev", "tmpfs", 0, nullptr), 0);
  ASSERT_EQ(mknod("/dev/loop-control", S_IFCHR | 0600, control.st_rdev), 0);
}

TEST(DiskImages, ThatAreAttachedAndMountedGiveTheirApplications) {
  if (!canAttachImages()) GTEST_SKIP() << "needs CAP_SYS_ADMIN, loop devices and mkfs.ext4";
  const TemporaryRoot root;
  const std::string plain = makeImage(root, "plain.img", 0);
  const std::string parted = makeImage(root, "parted.img", 2);
  const std::string idle = makeImage(root, "idle.img", 0);
  // Characters that the mount table escapes.
  const std::string onPlain = root.makeDirectory("a b#\\c\td");
  const std::string onParted = root.makeDirectory("parted");
  const bool passed = runInMountNamespace([&] {
    makeOwnDevices();
    const AttachedImage first(plain);
    const AttachedImage second(parted);
    const AttachedImage unmounted(idle);
    ASSERT_TRUE(first.attached() && second.attached() && unmounted.attached());
    ASSERT_TRUE(second.addPartitions(2));
    PLGlobalConfiguration c(root.url());
    const Paths before = c.diskImageMountPoints();
    ASSERT_EQ(mount(first.media(0).c_str(), onPlain.c_str(), "ext4", 0, nullptr), 0) << errno;
    ASSERT_EQ(mount(second.media(2).c_str(), onParted.c_str(), "ext4", 0, nullptr), 0) << errno;
    const std::string a = makeApplication(onPlain, "A", "a");
    const std::string b = makeApplication(onParted, "B", "b");

    // Others may have images attached to this machine.
    const Paths points = c.diskImageMountPoints();
    EXPECT_EQ(points.size(), before.size() + 2);
    EXPECT_NE(std::find(points.begin(), points.end(), onPlain), points.end());
    EXPECT_NE(std::find(points.begin(), points.end(), onParted), points.end());
    const Dictionary map = c.diskImageAppBundleIDToInfoMap();
    EXPECT_EQ(locationOf(map, "a"), a);
    EXPECT_EQ(locationOf(map, "b"), b);

    ASSERT_EQ(umount(onParted.c_str()), 0);
    EXPECT_EQ(c.diskImageMountPoints().size(), before.size() + 1);
    EXPECT_EQ(locationOf(c.diskImageAppBundleIDToInfoMap(), "b"), "");
    ASSERT_EQ(umount(onPlain.c_str()), 0);
  });
  EXPECT_TRUE(passed);
}

TEST(DiskImages, HaveAMediumForEveryPartitionInTheirOrder) {
  if (!canAttachImages()) GTEST_SKIP() << "needs CAP_SYS_ADMIN, loop devices and mkfs.ext4";
  const TemporaryRoot root;
  const std::string image = makeImage(root, "parted.img", 10);
  const bool passed = runInMountNamespace([&] {
    makeOwnDevices();
    std::optional<AttachedImage> attached(image);
    ASSERT_TRUE(attached->attached() && attached->addPartitions(10));
    const std::string whole = std::filesystem::path(attached->media(0)).filename();
    const auto gather = [](DevObject entry, DevWalk walk, Paths& drives, Paths& media) {
      DevObject iterator = 0;
      EXPECT_EQ(DevWalkOpen(entry, walk, iterator), 0);
      while (const DevObject next = DevWalkNext(iterator)) {
        const Value name = DevCopyProperty(next, kDeviceNodeName);
        if (DevConformsTo(next, kStorageMedia)) media.push_back(*name.asString());
        if (DevConformsTo(next, kDiskImageDrive)) drives.push_back("drive");
        DevRelease(next);
      }
      DevRelease(iterator);
      EXPECT_EQ(DevWalkNext(iterator), 0U) << "released";
    };
    EXPECT_EQ(DevFindFirstService("Another driver"), 0U);
    const DevObject controller = DevFindFirstService(kDiskImageController);
    ASSERT_NE(controller, 0U);
    Paths drives;
    Paths media;
    gather(controller, DevWalk::kChildren, drives, media);
    EXPECT_TRUE(media.empty());
    const size_t images = drives.size();
    EXPECT_GE(images, 1U);
    gather(controller, DevWalk::kDescendants, drives, media);
    EXPECT_EQ(drives.size(), 2 * images);
    Paths expected{whole};
    for (int number = 1; number <= 10; ++number) {
      expected.push_back(whole + "p" + std::to_string(number));
    }
    EXPECT_NE(std::search(media.begin(), media.end(), expected.begin(), expected.end()),
              media.end());
    attached.reset();
    media.clear();
    gather(controller, DevWalk::kDescendants, drives, media);
    EXPECT_EQ(std::find(media.begin(), media.end(), whole), media.end()) << "detached";
    DevRelease(controller);
    DevObject iterator = 0;
    EXPECT_NE(DevWalkOpen(controller, DevWalk::kChildren, iterator), 0) << "released";
  });
  EXPECT_TRUE(passed);
}

}  // namespace
}  // namespace pallion::test
