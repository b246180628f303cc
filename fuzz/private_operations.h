#pragma once

#include "AppMigrator/app_migrator.h"

// The migrator's private operations that targets call: naming a member in an explicit instantiation
// is exempt from access control.

namespace pallion::fuzz {

template <class Operation, typename Operation::Type kMember>
struct Opened {
  friend typename Operation::Type memberOf(Operation) { return kMember; }
};

struct IntrospectContainer {
  using Type = std::optional<Dictionary> (PLAppMigrator::*)(const URL& container,
                                                            bool& orderResultEarly);
  friend Type memberOf(IntrospectContainer);
};
struct MigrateGroupContainers {
  using Type = bool (PLAppMigrator::*)(const std::string& identifier);
  friend Type memberOf(MigrateGroupContainers);
};

template struct Opened<IntrospectContainer, &PLAppMigrator::_introspectContainer>;
template struct Opened<MigrateGroupContainers,
                       &PLAppMigrator::_migrateGroupContainersForIdentifier>;

}  // namespace pallion::fuzz
