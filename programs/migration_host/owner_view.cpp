#include "programs/migration_host/owner_view.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <unistd.h>

#include "foundation/unique_descriptor.h"
#include "programs/common/console.h"
#include "programs/common/root_directory.h"
#include "programs/migration_host/exit_status.h"

namespace pallion::host {

namespace {

// Names the process's user namespace; empty where the system has no /proc.
std::string namespaceName(int process) {
  char name[PATH_MAX];
  const ssize_t size = readlinkat(process, "ns/user", name, sizeof name);
  return {name, size > 0 ? static_cast<size_t>(size) : 0};
}

}  // namespace

int enterForReading(const std::string& path, OwnerView& owners) {
  // Stays usable when the root has no /proc.
  const UniqueDescriptor process(open("/proc/self", O_PATH | O_DIRECTORY | O_CLOEXEC));
  const std::string before = namespaceName(process.get());
  owners.user = geteuid();
  owners.group = getegid();
  static RootDirectory root;  // holds the lock
  int error = root.open(path);
  if (error == 0) error = root.lock();
  if (error == EWOULDBLOCK) {
    complain(path + ": a run is at work here");
    return kExitLocked;
  }
  if (error != 0) {
    complain(path, error);
    return kExitUsage;
  }
  error = root.enter();
  if (error != 0) {
    complain(path + ": can't become the root", error);
    return kExitUsage;
  }
  owners.isNamespace = namespaceName(process.get()) != before;
  return kExitSuccess;
}

}  // namespace pallion::host
