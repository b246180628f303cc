#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/app_workspace.h"
#include "platform/installer_service.h"

namespace pallion {

struct SafeHarborRecord {
  std::string identifier;
  std::string path;
  int containerType = 0;
};

// The embedded registry and installer: a SQLite database and the containers of the new layout below a root directory.
//
//   <root>/private/var/palliond/Library/Pallion/registry.sqlite   what is installed
//   <root>/private/var/palliond/Library/Pallion/SafeHarbors/<UUID>/
//   <root>/private/var/palliond/Containers/{Bundle,Data,Group}/<UUID>/
//   <root>/private/var/palliond/Containers/Incoming/              what an installation is about
//   <root>/Applications/*.app                                     built-in applications
//
// It opens its database, and completes or undoes interrupted work, on first use. Opening for reading alone (`openForReading`)
// makes nothing and changes nothing. Any thread may call any operation; one lock orders them.
class Registry : public AppWorkspace, public InstallerService {
 public:
  enum class Access { kReadWrite, kReadOnly };
  // `root` is a directory location: "/" for the running system.
  static std::unique_ptr<Registry> atRoot(const URL& root, Access access = Access::kReadWrite);

  // Every record, sorted by identifier; nothing when the registry can't be read (then the record through `error`). A registry
  // that was never written is empty but for the built-in applications.
  virtual std::optional<std::vector<BundleProxy>> allProxies(Error* error) = 0;
  virtual std::optional<std::vector<SafeHarborRecord>> allSafeHarbors(Error* error) = 0;
};

}  // namespace pallion
