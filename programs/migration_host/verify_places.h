#pragma once

#include <map>
#include <string>

#include "foundation/error.h"
#include "platform/registry.h"
#include "programs/migration_host/user_data_sources.h"

namespace pallion::host {

// Where the items of an old layout are now.
class UserDataPlaces {
 public:
  enum class Layout { kOld, kNew };
  struct Place {
    Layout layout = Layout::kNew;
    std::string path;  // empty when the registry knows of none
  };

  // Asks the registry. False with the cause when it can't be read.
  bool load(Registry& registry, Error* cause);
  // An item is moved in one step, so where it still is in the old layout it is whole there, and
  // what the new one has in its place is the installer's.
  [[nodiscard]] Place placeOf(const UserDataItem& item) const;

 private:
  std::map<std::string, std::string> dataContainers_;
  std::map<std::string, std::string> groupContainers_;
  std::map<std::string, std::string> harbors_;
};

}  // namespace pallion::host
