#include <algorithm>
#include <cerrno>
#include <cstring>

#include "configuration/global_configuration.h"
#include "platform/device_registry.h"
#include "platform/mount_table.h"
#include "platform/product_log.h"

namespace pallion {

namespace {

// An object of the device registry, released at the end of its scope.
class Held {
 public:
  explicit Held(DevObject object) : object_(object) {}
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  ~Held() {
    if (object_ != 0) DevRelease(object_);
  }
  explicit operator bool() const { return object_ != 0; }
  [[nodiscard]] DevObject get() const { return object_; }

 private:
  DevObject object_;
};

}  // namespace

std::optional<std::string> PLGlobalConfiguration::mountPointForDevice(DevObject device) const {
  constexpr char kFunction[] = "-[PLGlobalConfiguration mountPointForDevice:]";
  const std::optional<std::vector<MountedFileSystem>> mounted =
      MountTable::current().mountedFileSystems();
  if (!mounted || mounted->empty()) {
    LogWrite(kLogError, kFunction, "getmntinfo failed: %s", std::strerror(errno));
    return std::nullopt;
  }
  DevObject iterator = 0;
  if (DevWalkOpen(device, DevWalk::kDescendants, iterator) != 0) {
    LogWrite(kLogError, kFunction, "DevWalkOpen failed for deviceObj (%u)", unsigned{device});
    return std::nullopt;
  }
  const Held walk(iterator);
  while (const Held descendant{DevWalkNext(walk.get())}) {
    if (!DevConformsTo(descendant.get(), kStorageMedia)) continue;
    const Value name = DevCopyProperty(descendant.get(), kDeviceNodeName);
    if (!name.asString()) continue;
    const std::string node = format("/dev/%@", name);
    const auto found =
        std::find_if(mounted->begin(), mounted->end(),
                     [&](const MountedFileSystem& system) { return system.from == node; });
    if (found != mounted->end()) return found->on;
  }
  return std::nullopt;
}

std::vector<std::string> PLGlobalConfiguration::diskImageMountPoints() const {
  constexpr char kFunction[] = "-[PLGlobalConfiguration diskImageMountPoints]";
  std::vector<std::string> mountPoints;
  const Held controller(DevFindFirstService(kDiskImageController));
  if (!controller) return mountPoints;
  DevObject iterator = 0;
  if (const int status = DevWalkOpen(controller.get(), DevWalk::kChildren, iterator); status != 0) {
    LogWrite(kLogError, kFunction, "unable to create controller child iterator: error 0x%08X (%d)",
             static_cast<unsigned>(status), status);
    return mountPoints;
  }
  const Held children(iterator);
  while (const Held child{DevWalkNext(children.get())}) {
    if (DevConformsTo(child.get(), kDiskImageDrive)) {
      if (std::optional<std::string> point = mountPointForDevice(child.get()))
        mountPoints.push_back(*point);
      continue;
    }
    DevObject below = 0;
    if (DevWalkOpen(child.get(), DevWalk::kDescendants, below) != 0) continue;
    const Held walk(below);
    while (const Held descendant{DevWalkNext(walk.get())}) {
      if (!DevConformsTo(descendant.get(), kDiskImageDrive)) continue;
      if (std::optional<std::string> point = mountPointForDevice(descendant.get())) {
        mountPoints.push_back(*point);
        break;
      }
    }
  }
  return mountPoints;
}

std::vector<URL> PLGlobalConfiguration::diskImageApplicationsDirectories() {
  constexpr char kFunction[] = "-[PLGlobalConfiguration diskImageApplicationsDirectories]";
  const URL developer = developerAppsDirectory();
  std::vector<URL> directories;
  for (const std::string& point : diskImageMountPoints()) {
    if (point.starts_with("/private/var/debug_mount")) continue;
    directories.push_back(URL::fileURL(point, URL::Kind::kDirectory)
                              .appending("Applications", URL::Kind::kDirectory));
  }
  if (std::find(directories.begin(), directories.end(), developer) == directories.end()) {
    directories.push_back(developer);
  }
  LogWrite(kLogDebug, kFunction, "returning: %@", directories);
  return directories;
}

}  // namespace pallion
