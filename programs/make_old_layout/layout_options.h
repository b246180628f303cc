#pragma once

#include <cstdint>
#include <string>

namespace pallion {

// What the old layout is to hold.
struct LayoutOptions {
  std::string root;  // the directory that stands for "/"
  uint64_t applications = 40;
  uint64_t files = 20;       // user-data files in each container
  uint64_t fileSize = 1024;  // bytes of each
  uint64_t vpnPlugins = 2;   // containers that hold a VPN plug-in alone, besides the applications
  uint64_t groups = 6;
  uint64_t harbors = 3;
  uint64_t placeholders = 2;  // so many of the applications are placeholders
  bool mess = false;          // the awkward cases as well
  uint64_t seed = 1;
};

}  // namespace pallion
