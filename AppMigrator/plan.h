#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "AppMigrator/app_migrator.h"
#include "AppMigrator/plan_identity.h"
#include "AppMigrator/plan_sizes.h"
#include "AppMigrator/run_order.h"
#include "platform/app_workspace.h"

namespace pallion {

// Goes through a run without its effects: what a run decides is decided by the same functions here,
// and what the registry will answer is asked of its forecasts. Makes one plan; one thread.
class MigrationPlanner {
 public:
  explicit MigrationPlanner(const PLGlobalConfiguration& configuration);
  // With the keys of plan_keys.h.
  Dictionary plan();

 private:
  // One item of the old containers directory on its way through the run.
  struct Item {
    URL url;
    std::vector<std::string> entries;  // names, but for what was set aside
    Dictionary line;
    Value::Array userData;
    bool stays = false;
  };

  // plan.cpp
  void planItems();
  void planLinks(bool areRemoved);
  void finish(Item& item, bool succeeds);
  void addProblem(std::string_view path, std::string_view reason);
  // Lists an entry of the user data as moved, removed or left.
  TreeSize addUserData(Item& item, const std::string& name, std::string_view action);

  // plan_containers.cpp: the steps of a container's migration. Each answers false once it is
  // decided that the container stays.
  void planContainer(Item& item, const QueuedContainer& queued);
  bool planRecord(Item& item, const Dictionary& info, const URL& bundle);
  bool planUserData(Item& item, const URL& dataContainer);
  InstallationQuestion questionFor(const Item& item, const Dictionary& info,
                                   std::vector<std::string>& staged, std::string& failure) const;
  bool planBundle(Item& item, const Dictionary& info, InstallationForecast& forecast);
  bool stay(Item& item, std::string reason) const;
  // Names of entries that are left once user data, store metadata and `staged` are gone.
  [[nodiscard]] std::vector<std::string> leftOver(const Item& item,
                                                  const std::vector<std::string>& staged) const;

  // plan_shared_data.cpp
  void planGroups(const std::string& application,
                  const std::vector<InstallationForecast::Group>& groups);
  void planGroup(const std::string& application, const InstallationForecast::Group& group);
  void planUnclaimedGroups();
  void planHarbors();
  void planHarbor(const std::string& identifier, const std::string& path);
  // The move of a directory's tree, of which what stands in `movedFrom` gets its place in `to`;
  // answers its action.
  std::string_view addMove(Dictionary& line, const URL& from, const URL& movedFrom, const URL& to);

  const PLGlobalConfiguration& configuration_;
  PLAppMigrator migrator_;  // for what it reads; its maps are changed like a run changes them
  PlanVolumes volumes_;
  PlanIdentity identity_;
  std::optional<std::string> registryProblem_;
  std::map<std::string, std::string> installedBefore_;  // identifiers and types
  std::set<std::string> reportedGroups_;
  std::set<std::string> takenHarbors_;
  Value::Array containers_;
  Value::Array groups_;
  Value::Array harbors_;
  Value::Array problems_;
};

}  // namespace pallion
