#pragma once

#include <string>

#include "foundation/unique_descriptor.h"

namespace pallion {

// The directory that a program works on as "/".
class RootDirectory {
 public:
  enum class Links {
    kFollowed,
    // Not by this process, where applications stand (programs/common/link_guard.h).
    kRefused,
  };

  // Opens it. 0 or the errno of what failed.
  int open(const std::string& path);
  // Takes the lock that keeps other runs away, on the directory itself: it leaves no file behind
  // and ends with the process. 0, EWOULDBLOCK when another run has it, or the errno of what failed.
  int lock();
  // Makes it the process's root and working directory. A process without the privilege becomes root
  // of a user and mount namespace of its own for it, so there must be no other thread yet. 0 or the
  // errno of what failed. When it is another directory than "/", the caller's TMPDIR is forgotten.
  // Where links can't be refused they are followed.
  int enter(Links links = Links::kFollowed);
  // What kept links from being refused: 0 or an errno. After `enter`.
  [[nodiscard]] int linkError() const { return linkError_; }
  // Opens and enters it, for questions, which need no lock. False after one line on standard error.
  bool openAndEnter(const std::string& path);

 private:
  // Refuses links, if so wanted, and makes the directory the working directory.
  int approach(Links links);

  std::string path_;
  UniqueDescriptor directory_;
  int linkError_ = 0;
};

}  // namespace pallion
