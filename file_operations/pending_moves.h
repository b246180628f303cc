#pragma once

#include <vector>

#include "foundation/error.h"
#include "foundation/url.h"

namespace pallion {

// Moves whose sources go together, after one sync for all of them. On one volume a move is a rename
// and nothing is pending. Across volumes the item is copied; its source stays until `complete`.
// Whatever is pending on destruction keeps its source, and the copy stays beside it, so that the
// move can be made again. For one thread.
class PendingMoves {
 public:
  PendingMoves() = default;
  PendingMoves(const PendingMoves&) = delete;
  PendingMoves& operator=(const PendingMoves&) = delete;

  // The move of that name of PLFileManager, but for the source's removal.
  bool moveItemIfExistsAtURL(const URL& source, const URL& destination, Error* error) {
    return _moveItemAtURL(source, destination, false, error);
  }

  // A rename that only a directory can go, onto nothing or onto an empty directory, which it
  // replaces. False with errno set where it takes more than that, and then nothing was done.
  static bool moveOntoEmptyDirectory(const URL& source, const URL& destination);

  // Puts the copies on their medium, unless a sync since has done so, sets each source aside under
  // a name of its own in its directory (platform/set_aside.h) and removes it; when that fails the
  // move still counts as done and a line at level 3 says so. False with a record when a copy may
  // not be on its medium: then every source stays, and nothing is pending any more. A failed sync
  // may have dropped pages for good, so it is not tried again: a later move copies anew. No call
  // when nothing is pending.
  bool complete(Error* error);

 private:
  friend class PLFileManager;

  struct Move {
    URL source;
    URL destination;
  };

  bool _moveItemAtURL(const URL& source, const URL& destination, bool failIfSrcMissing,
                      Error* error);
  static void discardSource(const URL& source);

  std::vector<Move> copied_;
};

}  // namespace pallion
