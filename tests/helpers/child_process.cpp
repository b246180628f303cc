#include "tests/helpers/child_process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
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

void setColumns(int terminal, unsigned short columns) {
  const winsize size{.ws_row = 24, .ws_col = columns, .ws_xpixel = 0, .ws_ypixel = 0};
  checked(ioctl(terminal, TIOCSWINSZ, &size), "TIOCSWINSZ");
}

int openTerminal(unsigned short columns) {
  const int master = checked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt");
  checked(grantpt(master), "grantpt");
  checked(unlockpt(master), "unlockpt");
  setColumns(master, columns);
  return master;
}

// From the beginning, up to the end or to EIO, which a terminal's master gives once the other side
// is closed.
std::string readUp(int descriptor) {
  std::string out;
  char buffer[4096];
  lseek(descriptor, 0, SEEK_SET);
  while (true) {
    const ssize_t length = read(descriptor, buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return out;
    out.append(buffer, static_cast<size_t>(length));
  }
}

}  // namespace

bool runInChild(const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t child = checked(fork(), "fork");
  if (child == 0) {
    body();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (!WIFEXITED(status)) std::fprintf(stderr, "the child died\n");
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

ChildProcess::ChildProcess(const Setup& setup) : errorsAreTerminal_(setup.terminalColumns != 0) {
  output_.reset(checked(memfd_create("output", MFD_CLOEXEC), "memfd_create"));
  errors_.reset(errorsAreTerminal_ ? openTerminal(setup.terminalColumns)
                                   : checked(memfd_create("errors", MFD_CLOEXEC), "memfd_create"));
  UniqueDescriptor childErrors(
      checked(errorsAreTerminal_ ? open(ptsname(errors_.get()), O_RDWR | O_NOCTTY | O_CLOEXEC)
                                 : fcntl(errors_.get(), F_DUPFD_CLOEXEC, 0),
              "standard error"));
  UniqueDescriptor childOutput(checked(fcntl(output_.get(), F_DUPFD_CLOEXEC, 0), "dup"));
  if (setup.output == Output::kBrokenPipe) {
    int ends[2];
    checked(pipe2(ends, O_CLOEXEC), "pipe");
    close(ends[0]);
    childOutput.reset(ends[1]);
  }
  std::vector<char*> arguments;
  arguments.reserve(setup.arguments.size() + 1);
  for (const std::string& argument : setup.arguments)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);

  process_ = checked(fork(), "fork");
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const std::string& entry : setup.environment) putenv(const_cast<char*>(entry.c_str()));
    if (setup.ignoredSignal != 0) std::signal(setup.ignoredSignal, SIG_IGN);
    dup2(childOutput.get(), STDOUT_FILENO);
    if (setup.output == Output::kClosed) close(STDOUT_FILENO);
    dup2(childErrors.get(), STDERR_FILENO);
    if (setup.third == 3) fcntl(3, F_SETFD, 0);
    if (setup.third >= 0) dup2(setup.third, 3);
    if (setup.user &&
        (setgroups(0, nullptr) != 0 || setresgid(*setup.user, *setup.user, *setup.user) != 0 ||
         setresuid(*setup.user, *setup.user, *setup.user) != 0)) {
      _exit(126);
    }
    if (setup.beforeProgram) setup.beforeProgram();
    execv(arguments[0], arguments.data());
    _exit(127);
  }
}

ChildProcess::~ChildProcess() {
  if (process_ <= 0) return;
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

void ChildProcess::signal(int number) const { kill(process_, number); }

void ChildProcess::resizeTerminal(unsigned short columns) const {
  setColumns(errors_.get(), columns);
}

ProcessOutcome ChildProcess::wait() {
  ProcessOutcome outcome;
  // A terminal holds few bytes, so it is read while the program runs.
  if (errorsAreTerminal_) outcome.err = readUp(errors_.get());
  int status = 0;
  while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {
  }
  process_ = -1;
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  outcome.out = readUp(output_.get());
  if (!errorsAreTerminal_) outcome.err = readUp(errors_.get());
  return outcome;
}

}  // namespace pallion::test
