#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "foundation/url.h"
#include "foundation/value.h"
#include "platform/sha256.h"

namespace pallion {

// What a tree holds, all of it on one volume.
struct TreeSize {
  uint64_t bytes = 0;       // in regular files; a file of several names once
  uint64_t allocated = 0;   // bytes of the volume, directories included
  uint64_t entries = 0;     // the top included
  bool incomplete = false;  // something could not be looked at
  bool isDirectory = false;
  bool isMountRoot = false;
  SHA256Digest::Bytes identity{};  // of all its items, see PlanIdentity
};

// Walks it without following links, and without access times where that is permitted.
TreeSize measureTree(const std::string& path);

// The volumes that a run has to do with, and what it will take of each.
class PlanVolumes {
 public:
  // Renaming does not cross mounts, not even of one device.
  struct Place {
    dev_t device = 0;
    uint64_t mount = 0;
    friend bool operator==(const Place&, const Place&) = default;
  };

  // Of the item, or, where it is not there yet, of its nearest ancestor that is. Links on the way
  // are followed.
  Place placeOf(const URL& url);
  // Whether what is moved from one directory to another has to be copied.
  bool crosses(const URL& from, const URL& to) { return placeOf(from) != placeOf(to); }
  void need(const URL& at, uint64_t bytes, uint64_t files);

  // The volumes in the order in which they were met; a reason to fail for each that lacks something
  // goes to `problems`.
  Value::Array describe(Value::Array& problems) const;

 private:
  struct Volume {
    std::string path;  // a directory on it
    uint64_t bytes = 0;
    uint64_t files = 0;
    bool isWritten = false;
  };
  std::map<std::string, Place> places_;
  std::vector<std::pair<Place, Volume>> volumes_;
};

}  // namespace pallion
