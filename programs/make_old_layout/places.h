#pragma once

#include <string>

// Where things stand on the device: absolute paths inside the root.

namespace pallion {

inline constexpr char kContainersDirectory[] = "/private/var/mobile/Applications";

inline std::string containerPath(const std::string& name) {
  return std::string(kContainersDirectory) + "/" + name;
}
inline std::string groupPath(const std::string& name) {
  return "/private/var/mobile/Library/GroupContainers/" + name;
}
inline std::string harborPath(const std::string& name) {
  return "/private/var/mobile/Library/Pallion/SafeHarbors/" + name;
}

// One of the applications that come with the system.
inline constexpr char kBuiltInIdentifier[] = "com.orlix.clock";
inline constexpr char kBuiltInVersion[] = "5.0";

}  // namespace pallion
