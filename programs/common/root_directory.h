#pragma once

#include <string>

namespace pallion {

// The directory that a program works on as "/".
class RootDirectory {
 public:
  RootDirectory() = default;
  RootDirectory(const RootDirectory&) = delete;
  RootDirectory& operator=(const RootDirectory&) = delete;
  ~RootDirectory();

  // Opens it. 0 or the errno of what failed.
  int open(const std::string& path);
  // Takes the lock that keeps other runs away, on the directory itself: it leaves no file behind
  // and ends with the process. 0, EWOULDBLOCK when another run has it, or the errno of what failed.
  int lock();
  // Makes it the process's root and working directory. A process without the privilege becomes root
  // of a user and mount namespace of its own for it, so there must be no other thread yet. 0 or the
  // errno of what failed. When it is another directory than "/", the caller's TMPDIR is forgotten.
  int enter();
  // Opens and enters it, for questions, which need no lock. False after one line on standard error.
  bool openAndEnter(const std::string& path);

 private:
  int descriptor_ = -1;
};

}  // namespace pallion
