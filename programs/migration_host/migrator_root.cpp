#include "programs/migration_host/migrator_root.h"

#include <cerrno>
#include <cstdlib>

#include "programs/common/console.h"
#include "programs/migration_host/exit_status.h"

namespace pallion::host {

int MigratorRoot::enter(const Options& options, Use use) {
  int error = root_.open(options.root);
  if (error == 0 && use == Use::kRun) error = root_.lock();
  if (error == EWOULDBLOCK) {
    complain(options.root + ": another run is at work here");
    return kExitLocked;
  }
  if (error != 0) {
    complain(options.root, error);
    return kExitUsage;
  }
  std::string explanation;
  if (!module_.load(options.plugin, explanation)) {
    complain(explanation);
    return kExitNoMigrator;
  }
  error = root_.enter(RootDirectory::Links::kRefused);
  if (error != 0) {
    complain(options.root + ": can't become the root", error);
    return kExitUsage;
  }
  // On the volume of the containers, into which what is made there is renamed.
  setenv("TMPDIR", "/private/var/palliond/tmp", 0);
  const int followed = root_.linkError();
  if (use == Use::kRun && followed != 0 && followed != ENOENT && !options.quiet) {
    complain("warning: symbolic links that somebody makes during the run are followed", followed);
  }
  return kExitSuccess;
}

}  // namespace pallion::host
