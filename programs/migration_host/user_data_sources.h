#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "configuration/global_configuration.h"

// Which data of the old layout a migration carries over.

namespace pallion::host {

enum class UserDataKind { kApp, kGroup, kHarbor };

// One thing that is moved as a whole.
struct UserDataItem {
  UserDataKind kind = UserDataKind::kApp;
  std::string identifier;  // of the application, the group or the harbor
  std::string name;        // in its container; of a harbor that of its directory
  std::string path;        // in the old layout, without a slash at the end
};

// Where items are.
struct UserDataSource {
  UserDataKind kind = UserDataKind::kApp;
  std::string identifier;
  std::string path;  // the old container, of a harbor its directory
};

// What is in the old layout and no migration carries over.
struct NotCovered {
  std::string path;
  std::string reason;
  uint64_t entries = 0;  // items, with all that is in them
};

struct UserDataSources {
  std::vector<UserDataSource> sources;
  std::vector<NotCovered> notCovered;
  // What could not be looked at: it is not known whether there is user data. One sentence each.
  std::vector<std::string> problems;
};

// Looks at the old layout; in an order that depends on names only.
UserDataSources findUserData(const PLGlobalConfiguration& configuration);

// The items that are there now, sorted by name; a failure becomes a sentence in `problems`.
std::vector<UserDataItem> itemsOf(const UserDataSource& source,
                                  const PLGlobalConfiguration& configuration,
                                  std::vector<std::string>& problems);

}  // namespace pallion::host
