// For builds with coverage. A process writes its counts when it ends, to paths in the build
// directory: not where it ends without exit handlers, and not there where it has changed its root.
// Linked to programs and tests.

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

// Only where the program itself is counted; a module has its own.
extern "C" void __gcov_dump() __attribute__((weak));
extern "C" [[noreturn]] void __real__exit(int status);

namespace {

int outside = -1;

// A descriptor of a directory outside leads out of a changed root. Exit handlers of a program run
// before those of its libraries, and these before a file's counts are written, so leaving here
// serves all of them.
__attribute__((destructor)) void leaveRoot() {
  // Without the right to change it the root has not been changed either.
  if (outside >= 0 && fchdir(outside) == 0 && chroot(".") != 0) return;
}

void writeCounts() {
  leaveRoot();
  if (__gcov_dump) __gcov_dump();
}

__attribute__((constructor)) void prepare() {
  const int root = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  // A closed standard descriptor is to stay closed.
  outside = fcntl(root, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  close(root);
  // abort() raises the signal again when the handler returns.
  std::signal(SIGABRT, [](int) { writeCounts(); });
}

}  // namespace

// The linker has calls of _exit lead here.
extern "C" [[noreturn]] void __wrap__exit(int status) {
  writeCounts();
  __real__exit(status);
}
