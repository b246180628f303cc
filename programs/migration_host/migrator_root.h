#pragma once

#include "programs/common/root_directory.h"
#include "programs/migration_host/options.h"
#include "programs/migration_host/plugin_module.h"

namespace pallion::host {

// The root and the module that is to work on it.
class MigratorRoot {
 public:
  enum class Use { kRun, kQuestion };

  // Opens the root, which a run locks, loads the module and enters the root, where the kernel
  // refuses to follow symbolic links from then on if it can; unless the caller chose another
  // directory for the present root, temporary items go to its /private/var/palliond/tmp.
  // kExitSuccess, or the exit status after one line on standard error. For a process that has one
  // thread yet.
  int enter(const Options& options, Use use);
  [[nodiscard]] const PluginModule& module() const { return module_; }

 private:
  RootDirectory root_;
  PluginModule module_;
};

}  // namespace pallion::host
