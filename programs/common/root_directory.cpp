#include "programs/common/root_directory.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "programs/common/console.h"
#include "programs/common/link_guard.h"

namespace pallion {

namespace {

int errorOf(int result) { return result < 0 ? errno : 0; }

int writeProcessFile(const char* path, const std::string& text) {
  const int descriptor = ::open(path, O_WRONLY | O_CLOEXEC);
  if (descriptor < 0) return errno;
  const int error = errorOf(static_cast<int>(write(descriptor, text.data(), text.size())));
  close(descriptor);
  return error;
}

// The caller's user and group become root of a new user namespace, which may change its root
// directory.
int becomeRootOfNamespace() {
  const std::string user = std::to_string(geteuid());
  const std::string group = std::to_string(getegid());
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return errno;
  int error = writeProcessFile("/proc/self/uid_map", "0 " + user + " 1");
  // The kernel takes a group map from an unprivileged process only when setgroups is given up.
  if (error == 0) error = writeProcessFile("/proc/self/setgroups", "deny");
  if (error == 0) error = writeProcessFile("/proc/self/gid_map", "0 " + group + " 1");
  return error;
}

}  // namespace

int RootDirectory::open(const std::string& path) {
  path_ = path;
  directory_.reset(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return errorOf(directory_.get());
}

int RootDirectory::lock() { return errorOf(flock(directory_.get(), LOCK_EX | LOCK_NB)); }

int RootDirectory::approach(Links links) {
  UniqueDescriptor entrance;
  if (links == Links::kRefused) linkError_ = guardAgainstLinks(directory_.get(), path_, entrance);
  // Refused here already when the directory may not be searched.
  return errorOf(fchdir(entrance ? entrance.get() : directory_.get()));
}

int RootDirectory::enter(Links links) {
  struct stat wanted {};
  struct stat present {};
  if (fstat(directory_.get(), &wanted) != 0 || stat("/", &present) != 0) return errno;
  if (int error = approach(links)) return error;
  if (wanted.st_dev == present.st_dev && wanted.st_ino == present.st_ino)
    return errorOf(chdir("/"));
  if (chroot(".") != 0) {
    if (errno != EPERM) return errno;
    int error = becomeRootOfNamespace();
    if (error == 0) error = approach(links);
    if (error != 0) return error;
    if (chroot(".") != 0) return errno;
  }
  unsetenv("TMPDIR");
  return errorOf(chdir("/"));
}

bool RootDirectory::openAndEnter(const std::string& path) {
  int error = open(path);
  if (error == 0) error = enter();
  if (error != 0) complain(path, error);
  return error == 0;
}

}  // namespace pallion
