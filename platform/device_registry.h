#pragma once

#include <cstdint>
#include <string_view>

#include "foundation/value.h"

namespace pallion {

// The registry of attached devices. Entries and iterators are objects that their receiver releases.
using DevObject = uint32_t;  // 0 is none

inline constexpr std::string_view kDiskImageController =
    "DiskImageController";                                             // the disk-image driver
inline constexpr std::string_view kDiskImageDrive = "DiskImageDrive";  // one attached disk image
inline constexpr std::string_view kStorageMedia = "StorageMedia";  // a medium: whole or a partition
inline constexpr std::string_view kDeviceNodeName =
    "DeviceNodeName";  // of a medium: its name below /dev

enum class DevWalk { kChildren, kDescendants };

class DeviceRegistry {
 public:
  DeviceRegistry() = default;
  DeviceRegistry(const DeviceRegistry&) = delete;
  DeviceRegistry& operator=(const DeviceRegistry&) = delete;
  virtual ~DeviceRegistry() = default;

  // The first registered service of that class, or none.
  virtual DevObject findFirstService(std::string_view className) = 0;
  // An iterator over the entries below `entry` in the service plane. 0, or a status code (an errno
  // here).
  virtual int walkOpen(DevObject entry, DevWalk walk, DevObject& iterator) = 0;
  // The next entry, or none at the end.
  virtual DevObject walkNext(DevObject iterator) = 0;
  virtual bool conformsTo(DevObject entry, std::string_view className) = 0;
  // A property, or none.
  virtual Value copyProperty(DevObject entry, std::string_view name) = 0;
  virtual void release(DevObject object) = 0;

  // The seam; see RecursiveRemove. The Linux implementation: loop devices with a backing file are
  // the attached disk images (read from /sys/block), the device itself and its partitions their
  // media. Without /sys/block there is no driver.
  static DeviceRegistry& current();
  static DeviceRegistry* replace(DeviceRegistry* replacement);
};

DevObject DevFindFirstService(std::string_view className);
int DevWalkOpen(DevObject entry, DevWalk walk, DevObject& iterator);
DevObject DevWalkNext(DevObject iterator);
bool DevConformsTo(DevObject entry, std::string_view className);
Value DevCopyProperty(DevObject entry, std::string_view name);
void DevRelease(DevObject object);

}  // namespace pallion
