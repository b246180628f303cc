#pragma once

#include "platform/migration_log.h"

namespace pallion {

inline constexpr const char* kMigratorLogCategory = "Shiftweller";

// Lines of the migrator in the host's log. `function` is the operation's full name.
template <class... Args>
void logError(const char* function, MigrationLogText<std::type_identity_t<Args>...> text,
              const Args&... args) {
  MigrationLog<Args...>(function, kMigratorLogCategory, 3, text, args...);
}

template <class... Args>
void logNotice(const char* function, MigrationLogText<std::type_identity_t<Args>...> text,
               const Args&... args) {
  MigrationLog<Args...>(function, kMigratorLogCategory, 5, text, args...);
}

}  // namespace pallion
