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
  std::string path;  // where the directory stands now, in the installer's harbor store
  int containerType = 0;
};

// The embedded registry and installer: a SQLite database and the containers of the new layout below
// a root directory.
//
//   <root>/private/var/palliond/Library/Pallion/registry.sqlite   what is installed
//   <root>/private/var/palliond/Library/Pallion/SafeHarbors/<UUID>/
//   <root>/private/var/palliond/Containers/{Bundle,Data,Group}/<UUID>/
//   <root>/private/var/palliond/Containers/Incoming/              what no commit has recorded or
//   put in its place yet <root>/Applications/*.app                                     built-in
//   applications
//
// It opens its database, and completes or undoes interrupted work, on first use; then no other
// process can write until it is closed (others may read). With Access::kReadOnly it makes and
// changes nothing: what would need to be made is missing in the answers, and what would change
// something is refused. Any thread may call any operation; one lock orders them, which is not held
// while a status block runs.
class Registry : public AppWorkspace, public InstallerService {
 public:
  enum class Access { kReadWrite, kReadOnly };
  // `root` is a directory location: "/" for the running system.
  static std::unique_ptr<Registry> atRoot(const URL& root, Access access = Access::kReadWrite);

  // Every record, sorted by identifier; nothing when the registry can't be read (then the record
  // through `error`). A registry that was never written is empty but for the built-in applications.
  virtual std::optional<std::vector<BundleProxy>> allProxies(Error* error) = 0;
  virtual std::optional<std::vector<SafeHarborRecord>> allSafeHarbors(Error* error) = 0;

  // Writes everything into the one database file and closes it. The next operation opens it again.
  // The destructor closes too.
  virtual void close() = 0;
};

// The registry at "/" that serves AppWorkspace and InstallerService while nothing replaces it. Made
// on first use, lives as long as the process.
Registry& defaultRegistry();
// Closes it, as a process should before it ends; without effect when it was never used.
void closeDefaultRegistry();

}  // namespace pallion
