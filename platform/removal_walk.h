#pragma once

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

#include "foundation/unique_descriptor.h"
#include "platform/directory_reader.h"
#include "platform/recursive_remove.h"

namespace pallion {

// One removal of one tree, depth first and without recursion. Belongs to one call of one thread.
//
// The directories from the top one to where the walk stands are a stack of levels. Only the deepest
// few keep their descriptor and buffer. One that lost them is opened again through ".." of the
// level below when the walk comes back to it, and is believed only when it is the same directory as
// before. What was removed in it is gone by then and what stays is remembered, so it is simply read
// from its beginning.
class RemovalWalk {
 public:
  explicit RemovalWalk(RemovalState& state) : state_(state) {}
  RemovalWalk(const RemovalWalk&) = delete;
  RemovalWalk& operator=(const RemovalWalk&) = delete;

  // Removes the item at `path`. 0, or the errno that the removal ends with.
  int run(const char* path);

 private:
  struct Level {
    DirectoryReader reader;  // closed while the walk is far below
    size_t pathLength = 0;   // how much of `path_` names this directory
    dev_t device = 0;        // of one that was closed
    ino_t inode = 0;
    bool keepsItems = false;  // something in it, at whatever depth, could not be removed
    bool trustsShortReads =
        true;            // what looks like the last read is taken for it, until proved wrong
    int vainPasses = 0;  // how often it was read to its end and was not empty all the same
    std::set<std::string, std::less<>> kept;  // names of the entries that stay

    // Gives the descriptor up and remembers the directory. 0 or an errno, then it stays open.
    int close();
    // 0 when the descriptor is of the directory that was closed, ENOENT when it is of another one,
    // or an errno.
    [[nodiscard]] int compare(int descriptor) const;
  };

  void walk();
  void removeEntry(int directory, const char* name, unsigned char type);
  // Makes the directory the deepest level. False when the name is no directory; everything else is
  // dealt with.
  bool enter(int directory, const char* name);
  // Takes the deepest level away once it was read: removes it, or reads it again when it filled up
  // meanwhile.
  void leave();
  // Has the level above the deepest one opened. False when it can't be reached; then the stack ends
  // at a level that can.
  bool reopenAbove();
  bool descendAgain(size_t target);
  void pop();
  // The entry of the deepest level (or the top item when there is none) stays: remembered, and with
  // `fail` reported.
  void keep(const char* name);
  void fail(const char* name, int number);
  [[nodiscard]] int descriptorAbove(size_t level) const;
  [[nodiscard]] std::string nameOf(size_t level) const;

  RemovalState& state_;
  std::string path_;  // of the deepest level; of the top item while there is none
  std::string topName_;
  int topParent_ = -1;
  UniqueDescriptor openedParent_;
  std::vector<Level> levels_;
  int firstError_ = 0;
  bool stopped_ = false;
};

}  // namespace pallion
