#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "foundation/unique_descriptor.h"
#include "platform/directory_reader.h"
#include "platform/tree_copy_data.h"
#include "platform/tree_copy_links.h"
#include "platform/tree_copy_metadata.h"

namespace pallion {

// One copy of one tree, without recursion. Belongs to one call of one thread.
//
// The directories from the top one to where the walk stands are a stack of levels. On entering one,
// all its entries are copied but the directories, whose names are kept for afterwards. A directory
// of the copy is made for its owner alone and gets what the source has when everything in it is
// there, so nobody else reaches into a half-made copy. Only the deepest few levels keep their
// descriptors. One that lost them is opened again through ".." of the level below when the walk
// comes back to it, and is believed only when it is the same directory as before.
class TreeCopyWalk {
 public:
  // What is known of pairs of volumes, the source's first.
  using KnownAbilities = std::map<std::pair<dev_t, dev_t>, CopyAbilities>;

  // Adds what it writes to `bytesCopied`, which outlives this object.
  explicit TreeCopyWalk(std::atomic<uint64_t>& bytesCopied) : data_(bytesCopied) {}
  TreeCopyWalk(const TreeCopyWalk&) = delete;
  TreeCopyWalk& operator=(const TreeCopyWalk&) = delete;

  // 0, or the errno that the copy ends with. `volume` is the one of the destination's directory.
  int run(const char* source, const char* destination, dev_t volume, KnownAbilities& known);

 private:
  struct Level {
    DirectoryReader source;
    UniqueDescriptor destination;
    ItemStatus sourceStatus;
    ItemStatus destinationStatus;  // as created
    std::string name;
    std::vector<std::string> directories;               // names that are still to be entered
    CopiedLinks::Directory place = CopiedLinks::kNone;  // set once something in it has links
  };

  bool copyTop(const ItemReference& source, const ItemReference& destination);
  bool enter(const ItemReference& source, const ItemReference& destination);
  bool copyEntries();
  bool copyEntry(const char* name, unsigned char type);
  bool leave();
  bool reopen(Level& above, const Level& below);

  // Each copies the item of that name in one directory to the same or another name in the other.
  bool copyFile(const ItemReference& source, const ItemReference& destination);
  bool copySpecial(const ItemReference& source, const ItemReference& destination);

  // Whether the item is of the tree's volume; EXDEV otherwise.
  bool isOfTheTree(const ItemStatus& status) const;
  // What the new item, created with the mode `asked`, got from that, after anything inherited was
  // taken away.
  bool created(const ItemReference& item, mode_t asked, CreatedAs& as);

  // Stores whether the item was copied before under another name and is now a link to that.
  bool linkToCopy(const ItemStatus& status, const ItemReference& destination, bool& linked);
  void rememberCopy(const ItemStatus& status, const char* name);
  CopiedLinks::Directory placeOf(size_t level);
  // The directory of the copy; -1 with errno set on failure.
  int openCopied(CopiedLinks::Directory directory);

  std::vector<Level> levels_;
  ItemStatus top_;             // of the source
  ItemStatus topDestination_;  // when a directory
  DataCopy data_;
  MetadataCopy metadata_;
  // Permission bits that new items were asked to have, and those of them that they got: what the
  // process's mask leaves is learned from the first item, and no call spent on the others.
  mode_t knownModeBits_ = 0;
  mode_t grantedModeBits_ = 0;
  CopiedLinks links_;
  // The directory that was linked from last: names of one item often come in a row, and the way to
  // the first of them may be long.
  CopiedLinks::Directory linkedFrom_ = CopiedLinks::kNone;
  UniqueDescriptor linkedFromDescriptor_;
};

}  // namespace pallion
