#include "platform/log_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "foundation/signal_retry.h"
#include "platform/make_path.h"

namespace pallion {

LogFile::LogFile(std::string path, uint64_t maximumSize)
    : path_(std::move(path)), maximumSize_(maximumSize) {
  name_ = path_.substr(path_.rfind('/') + 1);
}

LogFile::LogFile(int descriptor) : descriptor_(descriptor) {}

LogFile::~LogFile() {
  if (path_.empty()) return;
  if (descriptor_ >= 0) close(descriptor_);
  if (directory_ >= 0) close(directory_);
}

int LogFile::write(std::string_view line) {
  const std::lock_guard lock(mutex_);
  if (descriptor_ < 0) {
    if (openError_ == 0) openError_ = open();
    if (openError_ != 0) return openError_;
  }
  if (!path_.empty() && size_ > 0 && size_ + line.size() > maximumSize_) rotate();
  // More than one write only where the kernel took a part (a pipe, or a medium that is almost
  // full).
  while (!line.empty()) {
    const ssize_t written =
        retriedAfterSignals([&] { return ::write(descriptor_, line.data(), line.size()); });
    if (written < 0) return errno;
    size_ += static_cast<uint64_t>(written);
    line.remove_prefix(static_cast<size_t>(written));
  }
  return 0;
}

int LogFile::open() {
  const std::string directory = path_.substr(0, path_.size() - name_.size());
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  directory_ = ::open(directory.c_str(), kFlags);
  if (directory_ < 0 && errno == ENOENT) {
    const int made = MakePath::current().make(directory.c_str(), 0755);
    if (made != 0 && made != EEXIST) return made;
    directory_ = ::open(directory.c_str(), kFlags);
  }
  if (directory_ < 0) return errno;
  return openFile();
}

// On failure the descriptor before stays in use.
int LogFile::openFile() {
  // O_NONBLOCK: opening a FIFO that nobody reads fails at once (ENXIO). It means nothing for a
  // regular file.
  const int opened =
      openat(directory_, name_.c_str(),
             O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
  if (opened < 0) return errno;
  struct stat status {};
  const int looked = fstat(opened, &status) == 0 ? 0 : errno;
  if (looked != 0 || !S_ISREG(status.st_mode)) {
    close(opened);
    return looked != 0 ? looked : EINVAL;
  }
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = opened;
  size_ = static_cast<uint64_t>(status.st_size);
  return 0;
}

void LogFile::rotate() {
  // If a step fails, lines go on to where they went; it is tried again after as many bytes as make
  // a full log.
  size_ = 0;
  for (int i = kLogFilesKept - 1; i >= 0; --i) {
    const std::string from = i == 0 ? name_ : name_ + "." + std::to_string(i);
    const std::string to = name_ + "." + std::to_string(i + 1);
    if (renameat(directory_, from.c_str(), directory_, to.c_str()) != 0 && i == 0) return;
  }
  openFile();
}

}  // namespace pallion
