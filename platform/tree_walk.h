#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>
#include <unordered_set>
#include <vector>

#include "foundation/unique_descriptor.h"
#include "platform/directory_reader.h"
#include "platform/item_status.h"

namespace pallion {

// What a walk hands out of one item. Valid until the next one is asked for.
struct TreeWalkEntry {
  // The kinds of the POSIX `fts` walk.
  enum class Kind {
    kDirectory,            // before its contents
    kDirectoryAfter,       // after its contents
    kUnreadableDirectory,  // instead of kDirectoryAfter, with the errno
    kCycle,                // a directory that the walk is inside of already
    kFile,
    kLink,
    kOther,
    kNoStatus,  // with the errno
    kError,     // with the errno; the walk is over
  };

  const char* path = nullptr;  // the root's, with the relative path appended
  Kind kind = Kind::kError;
  int errorNumber = 0;
  ItemStatus status;  // as it was first seen; empty for kNoStatus and kError
  // To change the item by, whatever its path leads to meanwhile; none for directories that were
  // handed out before and where there is no status.
  ItemReference item;
};

// Walks a tree like `fts` with FTS_PHYSICAL, FTS_NOCHDIR and FTS_XDEV, without recursion: links are
// handed out and not followed, directories on other volumes are handed out and not entered. Unlike
// there, every step is made relative to a directory descriptor, so that a tree that changes
// meanwhile never leads the walk outside; any depth, any path length, a fixed number of
// descriptors. Belongs to one call of one thread.
//
// Only the deepest few directories keep their descriptor. One that lost it has the names that are
// still to be visited in memory, is opened again through ".." of the one below, and believed only
// when it is the same as before; a directory that was moved away ends the walk with ESTALE.
class TreeWalk {
 public:
  // kByName: the names of each directory in the order of their bytes, for which all names of the
  // directories that the walk is inside of are in memory; and access times are left alone where the
  // caller may ask for that (O_NOATIME).
  enum class Order { kAsStored, kByName };

  TreeWalk() = default;
  explicit TreeWalk(Order order) : order_(order) {}
  TreeWalk(const TreeWalk&) = delete;
  TreeWalk& operator=(const TreeWalk&) = delete;

  // Begins. False with errno set; a root that is not there is told by its entry.
  bool open(const std::string& path);
  // The next entry; null after the last one.
  const TreeWalkEntry* next();
  // False with errno set on failure. Without it the descriptors are closed all the same.
  bool close();

 private:
  struct Name {
    std::string text;
    unsigned char type = 0;
  };
  struct Level {
    DirectoryReader reader;  // closed while the walk is far below
    ItemStatus status;
    size_t pathLength = 0;     // how much of `path_` names this directory
    bool isNew = true;         // nothing of it was visited yet
    bool isRead = false;       // all names were read ahead
    std::vector<Name> unread;  // of these, the ones still to be visited, the next one last
  };

  const TreeWalkEntry* visit(const ItemReference& item, unsigned char type);
  const TreeWalkEntry* visitDirectory(const ItemReference& item, int descriptor);
  bool beginReading(Level& level);
  bool nextName(Level& level);
  bool readAhead(Level& level);
  bool readNames(Level& level);
  const TreeWalkEntry* leave(TreeWalkEntry::Kind kind, int number);
  bool reopenAbove();
  const TreeWalkEntry* answer(TreeWalkEntry::Kind kind, const ItemReference& item, int number = 0);
  const TreeWalkEntry* fail(int number);
  [[nodiscard]] int descriptorAbove() const;

  const Order order_ = Order::kAsStored;
  UniqueDescriptor parent_;  // of the top; none for a top that has no name
  std::string topName_;
  bool atTop_ = true;
  std::string path_;  // of the entry
  Name name_;         // of the entry
  TreeWalkEntry entry_;
  std::vector<Level> levels_;
  std::unordered_set<ino_t> entered_;  // the levels, all of one volume
  dev_t device_ = 0;
};

}  // namespace pallion
