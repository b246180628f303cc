#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/registry_containers.h"
#include "platform/registry_database.h"

namespace pallion {

// One transaction of the registry and the directories that belong to it: what it records is made in
// Incoming before the commit and moved to its place after it; what it replaces is recorded as trash
// and removed after it. Undone when it is destroyed without a commit.
class RegistryChange {
 public:
  using Kind = RegistryContainers::Kind;

  // `removedTrash` holds the UUIDs of trash whose directories are gone: their rows are deleted with
  // the transaction. All of them outlive this object. `function` names the operation in logs.
  RegistryChange(RegistryDatabase& database, RegistryContainers& containers,
                 std::vector<std::string>& removedTrash, const char* function)
      : database_(database),
        containers_(containers),
        removedTrash_(removedTrash),
        function_(function) {}
  RegistryChange(const RegistryChange&) = delete;
  RegistryChange& operator=(const RegistryChange&) = delete;
  ~RegistryChange();

  // The first call.
  Outcome begin();
  // Makes a container in Incoming; it is removed again unless there is a commit.
  Outcome make(Kind kind, std::string& uuid);
  // Says that a container that stands in Incoming gets recorded, with bundles of these names in it;
  // without a commit it stays there.
  void adopt(Kind kind, const std::string& uuid, std::vector<std::string> bundles = {}) {
    incoming_.push_back({kind, uuid, std::move(bundles)});
  }
  // Records a bundle, with a new data container when the row has none yet.
  Outcome storeBundle(BundleRow& row);
  // Records which groups a bundle names, with new containers for groups that have none.
  Outcome storeGroups(const std::string& bundle, const std::vector<std::string>& groups);
  Outcome storeTrash(TrashRow row);
  // Success means that it is durable. What can't be moved or removed then is logged, and done when
  // the registry is next opened.
  Outcome commit();

  // Hands store metadata on and removes the directory. True when it is gone.
  static bool dispose(RegistryContainers& containers, const TrashRow& row, const char* function);

 private:
  RegistryDatabase& database_;
  RegistryContainers& containers_;
  std::vector<std::string>& removedTrash_;
  const char* function_;
  bool open_ = false;
  std::vector<std::pair<Kind, std::string>> made_;  // to be removed without a commit
  struct Incoming {
    Kind kind;
    std::string uuid;
    std::vector<std::string> bundles;
  };
  std::vector<Incoming> incoming_;  // to be moved to their places
  std::vector<TrashRow> trash_;
};

}  // namespace pallion
