#pragma once

#include <memory>
#include <string>

#include "platform/migration_plugin.h"

namespace pallion::host {

using Plugin = std::unique_ptr<MigrationPluginBase, void (*)(MigrationPluginBase*)>;

// A loaded module of the migration framework. It stays loaded until the process ends: what it
// registered with the platform may be in use until then.
class PluginModule {
 public:
  // Loads the module, `path` or by default the one that was built or installed with the program.
  // False with one line of explanation.
  bool load(const std::string& path, std::string& explanation);
  // A new plug-in, before its `init`, to ask for its plan; may be null.
  [[nodiscard]] Plugin createPlugin() const;
  // A new plug-in that has been initialised; null when its `init` answers false.
  [[nodiscard]] Plugin makePlugin() const;
  // For messages.
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
  const MigrationPluginDescriptor* descriptor_ = nullptr;
};

}  // namespace pallion::host
