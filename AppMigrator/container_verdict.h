#pragma once

#include <optional>
#include <string>
#include <vector>

#include "foundation/url.h"
#include "foundation/value.h"

namespace pallion {

// What becomes of an item of the old containers directory.
enum class ContainerFate {
  kMigrated,
  kRemoved,    // rubbish
  kLeftAlone,  // can't be judged
  kGone,       // since the inventory was taken
};

struct ContainerVerdict {
  ContainerFate fate = ContainerFate::kLeftAlone;
  std::optional<Dictionary> info;  // of kMigrated: container_info.h
  bool orderEarly = false;         // an application container
  bool resumed = false;            // `info` is what the container's marker holds
  std::string reason;              // one line for people; empty for an ordinary container
};

// The entries of an item of the old containers directory.
struct ContainerListing {
  // Without what was set aside; none for an item that can't be listed: `verdict` is about it.
  std::optional<std::vector<URL>> entries;
  // What an interrupted move left behind; its content stands in the new layout already.
  std::vector<URL> setAside;
  ContainerVerdict verdict;
};

// Lists the item. Changes nothing, but writes the lines that belong to the look at an item.
ContainerListing listContainer(const URL& container);

}  // namespace pallion
