#include "tests/helpers/child_process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace pallion::test {

namespace {

int checked(int result, const char* what) {
  if (result >= 0) return result;
  std::perror(what);
  std::abort();
}

int openTerminal(unsigned short columns, std::string& name) {
  const int master = checked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt");
  checked(grantpt(master), "grantpt");
  checked(unlockpt(master), "unlockpt");
  winsize size{};
  size.ws_col = columns;
  size.ws_row = 24;
  checked(ioctl(master, TIOCSWINSZ, &size), "TIOCSWINSZ");
  name = ptsname(master);
  return master;
}

// From the beginning, up to the end or to EIO, which a terminal's master gives once the other side
// is closed.
std::string readUp(int descriptor) {
  std::string out;
  char buffer[4096];
  while (true) {
    const ssize_t length = read(descriptor, buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return out;
    out.append(buffer, static_cast<size_t>(length));
  }
}

}  // namespace

ChildProcess::ChildProcess(const Setup& setup) : errorsAreTerminal_(setup.terminalColumns != 0) {
  output_ = checked(memfd_create("output", MFD_CLOEXEC), "memfd_create");
  std::string terminal;
  int childErrors = -1;
  if (errorsAreTerminal_) {
    errors_ = openTerminal(setup.terminalColumns, terminal);
    childErrors = checked(open(terminal.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC), "terminal");
  } else {
    errors_ = checked(memfd_create("errors", MFD_CLOEXEC), "memfd_create");
    childErrors = checked(fcntl(errors_, F_DUPFD_CLOEXEC, 0), "dup");
  }
  int childOutput = checked(fcntl(output_, F_DUPFD_CLOEXEC, 0), "dup");
  if (setup.output == Output::kBrokenPipe) {
    int ends[2];
    checked(pipe2(ends, O_CLOEXEC), "pipe");
    close(ends[0]);
    close(childOutput);
    childOutput = ends[1];
  }
  std::vector<char*> arguments;
  for (const std::string& argument : setup.arguments)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);

  process_ = checked(fork(), "fork");
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const std::string& entry : setup.environment) putenv(const_cast<char*>(entry.c_str()));
    if (setup.ignoredSignal != 0) std::signal(setup.ignoredSignal, SIG_IGN);
    dup2(childOutput, STDOUT_FILENO);
    if (setup.output == Output::kClosed) close(STDOUT_FILENO);
    dup2(childErrors, STDERR_FILENO);
    if (setup.third == 3) fcntl(3, F_SETFD, 0);
    if (setup.third >= 0) dup2(setup.third, 3);
    if (setup.user &&
        (setgroups(0, nullptr) != 0 || setresgid(*setup.user, *setup.user, *setup.user) != 0 ||
         setresuid(*setup.user, *setup.user, *setup.user) != 0)) {
      _exit(126);
    }
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  close(childOutput);
  close(childErrors);
}

ChildProcess::~ChildProcess() {
  if (process_ > 0) {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  close(output_);
  close(errors_);
}

void ChildProcess::signal(int number) const { kill(process_, number); }

void ChildProcess::resizeTerminal(unsigned short columns) const {
  winsize size{};
  size.ws_col = columns;
  size.ws_row = 24;
  checked(ioctl(errors_, TIOCSWINSZ, &size), "TIOCSWINSZ");
}

ProcessOutcome ChildProcess::wait() {
  ProcessOutcome outcome;
  // A terminal holds few bytes, so it is read while the program runs.
  if (errorsAreTerminal_) outcome.err = readUp(errors_);
  int status = 0;
  while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {
  }
  process_ = -1;
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  lseek(output_, 0, SEEK_SET);
  outcome.out = readUp(output_);
  if (!errorsAreTerminal_) {
    lseek(errors_, 0, SEEK_SET);
    outcome.err = readUp(errors_);
  }
  return outcome;
}

}  // namespace pallion::test
