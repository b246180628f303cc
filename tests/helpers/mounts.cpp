#include "tests/helpers/mounts.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/helpers/child_process.h"

namespace pallion::test {

namespace {

bool enterMountNamespace() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// The exit status of the child, or -1 when it did not end by itself.
int runInChild(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    const int status = body();
    std::fflush(nullptr);
    _exit(status);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool runProgram(const std::vector<std::string>& arguments) {
  const ProcessOutcome outcome = runProcess({.arguments = arguments});
  std::fputs(outcome.err.c_str(), stderr);
  return outcome.status == 0;
}

}  // namespace

bool canMount() {
  static const bool answer =
      runInChild([] {
        bool mounted = enterMountNamespace() && mount("test", "/", "tmpfs", 0, nullptr) == 0;
        return mounted ? 0 : 1;
      }) == 0;
  return answer;
}

bool canMountImages() {
  static const bool answer = [] {
    return canMount() && access("/sbin/mkfs.ext4", X_OK) == 0 &&
           access("/dev/loop-control", R_OK | W_OK) == 0;
  }();
  return answer;
}

bool runInMountNamespace(const std::function<void()>& body) {
  int status = runInChild([&] {
    if (!enterMountNamespace()) {
      std::perror("mount namespace");
      return 1;
    }
    body();
    return testing::Test::HasFailure() ? 1 : 0;
  });
  if (status < 0) std::fprintf(stderr, "the child in the mount namespace died\n");
  return status == 0;
}

Mount Mount::tmpfs(const std::string& directory, const std::string& options) {
  bool mounted = mount("test", directory.c_str(), "tmpfs", 0, options.c_str()) == 0;
  if (!mounted) std::perror(("tmpfs at " + directory).c_str());
  return {directory, mounted};
}

Mount Mount::ext4Image(const std::string& image, const std::string& directory, int mebibytes,
                       const std::string& options) {
  int file = open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  bool made = file >= 0 && ftruncate(file, off_t{mebibytes} << 20) == 0;
  if (!made) std::perror(image.c_str());
  if (file >= 0) close(file);
  made = made && runProgram({"/sbin/mkfs.ext4", "-q", "-F", "-b", "4096", image});
  std::string all = options.empty() ? "loop" : "loop," + options;
  return {directory, made && runProgram({"/bin/mount", "-t", "ext4", "-o", all, image, directory})};
}

Mount Mount::bind(const std::string& source, const std::string& directory) {
  bool mounted = mount(source.c_str(), directory.c_str(), nullptr, MS_BIND, nullptr) == 0;
  if (!mounted) std::perror(("binding " + source).c_str());
  return {directory, mounted};
}

Mount::Mount(std::string directory, bool mounted)
    : directory_(std::move(directory)), mounted_(mounted) {}

Mount::~Mount() {
  if (!mounted_) return;
  if (umount2(directory_.c_str(), UMOUNT_NOFOLLOW) == 0) return;
  // Something is still open inside; it goes when that is closed.
  umount2(directory_.c_str(), UMOUNT_NOFOLLOW | MNT_DETACH);
}

}  // namespace pallion::test
