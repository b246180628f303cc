#include "tests/helpers/mounts.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>
#include <vector>

#include "foundation/unique_descriptor.h"
#include "tests/helpers/child_process.h"

namespace pallion::test {

namespace {

bool enterMountNamespace() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool runProgram(const std::vector<std::string>& arguments) {
  const ProcessOutcome outcome = runProcess({.arguments = arguments});
  std::fputs(outcome.err.c_str(), stderr);
  return outcome.status == 0;
}

}  // namespace

bool canMount() {
  static const bool answer = runInChild([] {
    if (!enterMountNamespace() || mount("test", "/", "tmpfs", 0, nullptr) != 0) _exit(1);
  });
  return answer;
}

bool canMountImages() {
  return canMount() && access("/sbin/mkfs.ext4", X_OK) == 0 &&
         access("/dev/loop-control", R_OK | W_OK) == 0;
}

bool runInMountNamespace(const std::function<void()>& body) {
  return runInChild([&body] {
    ASSERT_TRUE(enterMountNamespace()) << std::strerror(errno);
    body();
  });
}

Mount Mount::tmpfs(const std::string& directory, const std::string& options) {
  bool mounted = mount("test", directory.c_str(), "tmpfs", 0, options.c_str()) == 0;
  if (!mounted) std::perror(("tmpfs at " + directory).c_str());
  return {directory, mounted};
}

Mount Mount::ext4Image(const std::string& image, const std::string& directory, int mebibytes) {
  const UniqueDescriptor file(open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  const bool made = file && ftruncate(file.get(), off_t{mebibytes} << 20) == 0;
  if (!made) std::perror(image.c_str());
  if (!made || !runProgram({"/sbin/mkfs.ext4", "-q", "-F", "-b", "4096", image}))
    return {directory, false};
  return Mount::image(image, directory);
}

Mount Mount::image(const std::string& image, const std::string& directory) {
  return {directory, runProgram({"/bin/mount", "-o", "loop", image, directory})};
}

Mount Mount::bind(const std::string& source, const std::string& directory) {
  bool mounted = mount(source.c_str(), directory.c_str(), nullptr, MS_BIND, nullptr) == 0;
  if (!mounted) std::perror(("binding " + source).c_str());
  return {directory, mounted};
}

Mount::~Mount() {
  if (!mounted_) return;
  if (umount2(directory_.c_str(), UMOUNT_NOFOLLOW) == 0) return;
  // Something is still open inside; it goes when that is closed.
  umount2(directory_.c_str(), UMOUNT_NOFOLLOW | MNT_DETACH);
}

}  // namespace pallion::test
