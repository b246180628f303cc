#include "platform/device_registry.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "platform/replaceable.h"

namespace pallion {

namespace {

constexpr const char* kBlockDevices = "/sys/block";

// Puts the names in a directory that begin with `prefix` into `names`, in the order of the numbers
// that follow it. 0 or an errno.
int listNames(const std::string& directory, std::string_view prefix,
              std::vector<std::string>& names) {
  DIR* stream = opendir(directory.c_str());
  if (!stream) return errno;
  while (const dirent* entry = readdir(stream)) {
    if (std::string_view(entry->d_name).starts_with(prefix)) names.emplace_back(entry->d_name);
  }
  closedir(stream);
  std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
    return a.size() != b.size() ? a.size() < b.size() : a < b;
  });
  return 0;
}

bool exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

// A node of the service plane as it was when the walk that leads to it was opened.
struct Entry {
  std::string_view className;
  std::string deviceNode;  // of a drive and a medium
};

class LoopDeviceRegistry : public DeviceRegistry {
 public:
  DevObject findFirstService(std::string_view className) override {
    if (className != kDiskImageController) return 0;
    // The driver is there when it has devices, attached or not.
    std::vector<std::string> devices;
    if (listNames(kBlockDevices, "loop", devices) != 0 || devices.empty()) return 0;
    return add({{kDiskImageController, ""}, {}, 0});
  }

  int walkOpen(DevObject entry, DevWalk walk, DevObject& iterator) override {
    const std::shared_ptr<Object> object = find(entry);
    if (!object) return ENOENT;
    Object walked;
    if (const int number = collect(object->entry, walk, walked.walk)) return number;
    iterator = add(std::move(walked));
    return 0;
  }

  DevObject walkNext(DevObject iterator) override {
    const std::shared_ptr<Object> object = find(iterator);
    if (!object || object->next == object->walk.size()) return 0;
    return add({object->walk[object->next++], {}, 0});
  }

  bool conformsTo(DevObject entry, std::string_view className) override {
    const std::shared_ptr<Object> object = find(entry);
    return object && object->entry.className == className;
  }

  Value copyProperty(DevObject entry, std::string_view name) override {
    const std::shared_ptr<Object> object = find(entry);
    if (!object || object->entry.className != kStorageMedia || name != kDeviceNodeName) return {};
    return Value::string(object->entry.deviceNode);
  }

  void release(DevObject object) override {
    const std::lock_guard lock(mutex_);
    objects_.erase(object);
  }

 private:
  struct Object {
    Entry entry;
    std::vector<Entry> walk;  // of an iterator
    size_t next = 0;
  };

  // 0 or an errno.
  static int collect(const Entry& entry, DevWalk walk, std::vector<Entry>& out) {
    std::vector<std::string> names;
    if (entry.className == kDiskImageController) {
      if (const int number = listNames(kBlockDevices, "loop", names)) return number;
      for (const std::string& name : names) {
        if (!exists(std::string(kBlockDevices) + "/" + name + "/loop/backing_file")) continue;
        const Entry drive{kDiskImageDrive, name};
        out.push_back(drive);
        if (walk != DevWalk::kDescendants) continue;
        if (const int number = collect(drive, walk, out)) return number;
      }
    } else if (entry.className == kDiskImageDrive) {
      const std::string& drive = entry.deviceNode;
      out.push_back({kStorageMedia, drive});
      const std::string partitions = std::string(kBlockDevices) + "/" + drive;
      if (const int number = listNames(partitions, drive + "p", names)) return number;
      for (const std::string& name : names) out.push_back({kStorageMedia, name});
    }
    return 0;
  }

  DevObject add(Object object) {
    const std::lock_guard lock(mutex_);
    objects_[++last_] = std::make_shared<Object>(std::move(object));
    return last_;
  }
  std::shared_ptr<Object> find(DevObject object) {
    const std::lock_guard lock(mutex_);
    const auto found = objects_.find(object);
    return found == objects_.end() ? nullptr : found->second;
  }

  std::mutex mutex_;
  std::map<DevObject, std::shared_ptr<Object>> objects_;
  DevObject last_ = 0;
};

using Seam = Replaceable<DeviceRegistry, LoopDeviceRegistry>;

}  // namespace

DeviceRegistry& DeviceRegistry::current() { return Seam::current(); }
DeviceRegistry* DeviceRegistry::replace(DeviceRegistry* replacement) {
  return Seam::replace(replacement);
}

DevObject DevFindFirstService(std::string_view className) {
  return DeviceRegistry::current().findFirstService(className);
}
int DevWalkOpen(DevObject entry, DevWalk walk, DevObject& iterator) {
  return DeviceRegistry::current().walkOpen(entry, walk, iterator);
}
DevObject DevWalkNext(DevObject iterator) { return DeviceRegistry::current().walkNext(iterator); }
bool DevConformsTo(DevObject entry, std::string_view className) {
  return DeviceRegistry::current().conformsTo(entry, className);
}
Value DevCopyProperty(DevObject entry, std::string_view name) {
  return DeviceRegistry::current().copyProperty(entry, name);
}
void DevRelease(DevObject object) { DeviceRegistry::current().release(object); }

}  // namespace pallion
