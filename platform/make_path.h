#pragma once

#include <sys/types.h>

namespace pallion {

class MakePath {
 public:
  MakePath() = default;
  MakePath(const MakePath&) = delete;
  MakePath& operator=(const MakePath&) = delete;
  virtual ~MakePath() = default;

  // Makes every missing directory of `path` with `mode` (less the process's file-creation mask). 0;
  // EEXIST when the last component stands already, whatever it is; otherwise the errno of the
  // failed call. Directories made before a failure stay. Costs one call when the parent is there.
  virtual int make(const char* path, mode_t mode) = 0;

  // The seam; see RecursiveRemove.
  static MakePath& current();
  static MakePath* replace(MakePath* replacement);
  static MakePath& system();
};

}  // namespace pallion
