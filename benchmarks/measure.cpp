// bench-measure COMMAND [ARGUMENT...]: runs a command with its output thrown away and prints
// "<wall seconds> <user seconds> <system seconds> <peak resident KiB>". Ends with the command's
// exit status.

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "benchmarks/figures.h"

namespace {

[[noreturn]] void run(char** command) {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  dup2(null, STDIN_FILENO);
  dup2(null, STDOUT_FILENO);
  execvp(command[0], command);
  std::fprintf(stderr, "bench-measure: %s: %s\n", command[0], std::strerror(errno));
  _exit(127);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: bench-measure COMMAND [ARGUMENT...]\n");
    return 2;
  }
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child < 0) {
    std::perror("bench-measure: fork");
    return 1;
  }
  if (child == 0) run(argv + 1);
  int status = 0;
  rusage usage{};
  if (wait4(child, &status, 0, &usage) != child) {
    std::perror("bench-measure: wait4");
    return 1;
  }
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  pallion::bench::printFigures(wall, usage);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
