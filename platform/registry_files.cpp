#include "platform/registry_files.h"

#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <sqlite3.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace pallion {

namespace {

thread_local RegistryFiles filesAre = RegistryFiles::kWritten;

int openFile(const char* path, int flags, int mode) {
  const std::string_view name = path;
  const bool ownIndex = filesAre == RegistryFiles::kReadWithOwnIndex;
  if (ownIndex && name.ends_with("-shm")) return memfd_create("index", MFD_CLOEXEC);
  if (filesAre != RegistryFiles::kWritten)
    flags &= ~(O_CREAT | O_EXCL | O_ACCMODE);  // O_RDONLY is 0
  // Without access times where that is permitted.
  const auto permissions = static_cast<mode_t>(mode);
  int descriptor = open(path, flags | O_NOATIME, permissions);
  if (descriptor < 0 && errno == EPERM) descriptor = open(path, flags, permissions);
  const bool isLost = descriptor < 0 && errno == ENOENT && ownIndex && name.ends_with("-wal");
  return isLost ? memfd_create("log", MFD_CLOEXEC) : descriptor;
}

// Log and index get the owner of the database, which they have already but for the first time.
int changeOwner(int descriptor, uid_t owner, gid_t group) {
  struct stat status {};
  const bool isRight =
      fstat(descriptor, &status) == 0 && status.st_uid == owner && status.st_gid == group;
  return isRight || filesAre != RegistryFiles::kWritten ? 0 : fchown(descriptor, owner, group);
}

void replaceSystemCalls() {
  sqlite3_vfs* const files = sqlite3_vfs_find(nullptr);
  if (!files || files->iVersion < 3) return;
  // SQLite keeps its system calls as functions of one type and casts them back itself.
  files->xSetSystemCall(files, "open", reinterpret_cast<sqlite3_syscall_ptr>(openFile));
  files->xSetSystemCall(files, "fchown", reinterpret_cast<sqlite3_syscall_ptr>(changeOwner));
}

}  // namespace

RegistryFilesScope::RegistryFilesScope(RegistryFiles files) {
  static std::once_flag replaced;
  std::call_once(replaced, replaceSystemCalls);
  filesAre = files;
}

RegistryFilesScope::~RegistryFilesScope() { filesAre = RegistryFiles::kWritten; }

}  // namespace pallion
