#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

#include "platform/item_status.h"

namespace pallion::host {

// Owners as the rest of the system knows them. In a user namespace that a caller without privileges
// entered, root is the caller and everybody else has no number.
struct OwnerView {
  bool isNamespace = false;
  uid_t user = 0;
  gid_t group = 0;

  [[nodiscard]] std::optional<uid_t> userOf(const ItemStatus& status) const {
    if (!isNamespace) return status.owner;
    return status.owner == 0 ? std::optional(user) : std::nullopt;
  }
  [[nodiscard]] std::optional<gid_t> groupOf(const ItemStatus& status) const {
    if (!isNamespace) return status.group;
    return status.group == 0 ? std::optional(group) : std::nullopt;
  }
};

// Makes `path` the root of the process, while no other run is at work there. kExitSuccess, or the
// status to end with after one line of explanation. The lock lasts until the process ends.
int enterForReading(const std::string& path, OwnerView& owners);

}  // namespace pallion::host
