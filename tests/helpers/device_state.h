#pragma once

#include <filesystem>
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

  // Empty when every item, be it of an application's data, of a group or a harbor, and every bundle
  // stands whole below `root`, in the old layout, on its way or in the new one; otherwise the items
  // that stand nowhere whole. True at every instant of a migration.
  enum class Whole { kEverything, kUserData };  // without the bundles
  [[nodiscard]] std::string missingBelow(const std::string& root,
                                         Whole whole = Whole::kEverything) const;

  [[nodiscard]] size_t applications() const { return applications_.size(); }

 private:
  using Items = std::map<std::string, TreeSnapshot>;  // by name
  struct Application {
    std::string type;
    bool placeholder = false;
    std::vector<std::string> groups;  // of a real bundle
    Items data;                       // in its data container
    Items bundle;                     // in its bundle container: a real bundle, and metadata
  };
  void readContainer(const std::string& container);
  void readBundle(const std::filesystem::path& path, Application application);

  // Each item that has to stay whole, by name; harbors have none.
  std::multimap<std::string, TreeSnapshot> items_;
  std::map<std::string, Application> applications_;  // by identifier
  Items groups_;                                     // by identifier
  Items harbors_;                                    // by identifier
};

// What the registry below `root` says, but for the names and places that differ from run to run.
std::string registryText(const std::string& root);

}  // namespace pallion::test
