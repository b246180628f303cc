#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace pallion {

// A log of this size in bytes is set aside before the next line.
inline constexpr uint64_t kLogFileMaximumSize = uint64_t{4} << 20;
// Logs that were set aside and are kept: "<name>.1" is the latest, "<name>.4" the oldest.
inline constexpr int kLogFilesKept = 4;

// Where lines go: a file that is set aside by size, or a descriptor. Every line is one write(2) on
// a descriptor in append mode, so the lines of several processes do not mix, and nothing is lost
// when the process dies. Any thread may write.
class LogFile {
 public:
  // Opened with the first line; missing directories are made then (0755). A symbolic link, or
  // anything else that is no regular file, is refused without following it or waiting on it.
  explicit LogFile(std::string path, uint64_t maximumSize = kLogFileMaximumSize);
  // An open descriptor, such as STDERR_FILENO, that outlives this object. Never set aside.
  explicit LogFile(int descriptor);
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;
  ~LogFile();

  // Appends a whole line, which ends in its newline. 0, or the errno of what failed. A file that
  // could not be opened is not tried again: every further line answers the same.
  int write(std::string_view line);
  // Empty for a descriptor.
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  int open();
  int openFile();
  void rotate();

  const std::string path_;
  std::string name_;  // last component of the path
  const uint64_t maximumSize_ = 0;
  std::mutex mutex_;
  // The directory is kept open, so that the log stays where it began whatever happens to the path
  // above it.
  int directory_ = -1;
  int descriptor_ = -1;
  uint64_t size_ = 0;
  int openError_ = 0;
};

}  // namespace pallion
