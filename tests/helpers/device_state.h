#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/helpers/tree_snapshot.h"

namespace pallion::test {

// What a device with an old layout holds that must not be lost, and a comparison with what stands
// in the new layout after a migration. Only for layouts in which every container can be migrated.
class DeviceState {
 public:
  // Reads the old layout below `root`.
  explicit DeviceState(const std::string& root);

  // Empty when everything stands in the new layout below `root`, bytes, metadata and times, nothing
  // is left of the old one, and nothing stands in the new one that no record speaks of; otherwise a
  // readable list of what is wrong.
  [[nodiscard]] std::string differenceAfterMigration(const std::string& root) const;

  [[nodiscard]] size_t applications() const { return applications_.size(); }

 private:
  struct Application {
    std::string type;
    bool placeholder = false;
    std::vector<std::string> groups;
    std::map<std::string, TreeSnapshot> userData;  // by item name
    std::string bundleName;
    TreeSnapshot bundle;                          // of a real bundle
    std::map<std::string, std::string> metadata;  // file name and content
  };
  void readContainer(const std::string& container);
  void readBundle(const std::string& path, Application& application);

  std::map<std::string, Application> applications_;  // by identifier
  std::map<std::string, TreeSnapshot> groups_;       // by identifier
  std::map<std::string, TreeSnapshot> harbors_;      // by identifier
};

}  // namespace pallion::test
