#include "tests/platform/removal_fixture.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/recursive_remove.h"

namespace pallion::test {

Removal removeAt(const std::string& path, const std::function<bool()>& onReport) {
  struct Context {
    Removal outcome;
    const std::function<bool()>& onReport;
  } context{{}, onReport};
  RemovalState state;
  state.setErrorContext(&context);
  state.setErrorCallback([](RemovalState& reporting, const char* item, void* opaque) {
    auto& seen = *static_cast<Context*>(opaque);
    int number = 0;
    reporting.errorNumber(number);
    seen.outcome.reports.emplace_back(item, number);
    return seen.onReport();
  });
  context.outcome.number = RecursiveRemove::system().remove(path.c_str(), state) == 0 ? 0 : errno;
  std::sort(context.outcome.reports.begin(), context.outcome.reports.end());
  return std::move(context.outcome);
}

bool Immutable::set(bool immutable) const {
  int flags = immutable ? FS_IMMUTABLE_FL : 0;
  const int file = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  const bool done = file >= 0 && ioctl(file, FS_IOC_SETFLAGS, &flags) == 0;
  if (file >= 0) close(file);
  return done;
}

void touch(const std::string& path) {
  close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
}

void makeChain(const std::string& top, int levels) {
  int directory = open(top.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
  for (int i = 0; i < levels && directory >= 0; ++i) {
    close(openat(directory, "file", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    mkdirat(directory, "level", 0700);
    const int next = openat(directory, "level", O_DIRECTORY | O_RDONLY | O_CLOEXEC);
    close(directory);
    directory = next;
  }
  ASSERT_GE(directory, 0);
  close(directory);
}

std::string chainPath(int levels) {
  std::string path;
  for (int i = 0; i < levels; ++i) path += "/level";
  return path;
}

size_t countFiles(const std::string& top) {
  size_t count = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
    if (entry.is_regular_file()) ++count;
  }
  return count;
}

}  // namespace pallion::test
