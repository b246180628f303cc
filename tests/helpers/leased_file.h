#pragma once

#include <csignal>
#include <fcntl.h>
#include <string>

#include "foundation/unique_descriptor.h"

namespace pallion::test {

// A file that stands there but can't be read just now: as long as this lives, opening it without
// blocking answers EWOULDBLOCK, because of a write lease.
class LeasedFile {
 public:
  explicit LeasedFile(const std::string& path)
      : file_(open(path.c_str(), O_RDWR | O_CLOEXEC)),
        // The kernel tells the holder of each opening by a signal, ignored by default.
        held_(fcntl(file_.get(), F_SETSIG, SIGURG) == 0 &&
              fcntl(file_.get(), F_SETLEASE, F_WRLCK) == 0) {}

  // False where the file system knows no leases.
  [[nodiscard]] bool held() const { return held_; }

 private:
  UniqueDescriptor file_;
  bool held_;
};

}  // namespace pallion::test
