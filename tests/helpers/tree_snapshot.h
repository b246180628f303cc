#pragma once

#include <map>
#include <string>

namespace pallion::test {

struct SnapshotOptions {
  // Modification times of directories change whenever an entry is added or removed.
  bool ignoreDirectoryTimes = false;
  bool ignoreTimes = false;
  // Off by default: reading a tree changes them on most mounts. Taking a snapshot does not, where
  // that is permitted.
  bool accessTimes = false;
  // Off by default: a copy never has those of its source.
  bool changeTimes = false;
};

// Path relative to the top (bytes; the top itself is ".") -> one line with everything that matters
// about the item: kind, mode with set-id and sticky bits, owner, size, times, link target, device
// number, digest of the content, whether there are holes, all extended attributes (ACLs are among
// them), and the first path that names the same inode.
using TreeSnapshot = std::map<std::string, std::string>;

// Opens only regular files and directories, follows no link. An item that cannot be looked at has
// its error as its line; a missing top gives one such line. Paths inside the tree have to stay
// below PATH_MAX.
TreeSnapshot snapshotTree(const std::string& path, const SnapshotOptions& options = {});

// Empty when equal; otherwise up to 20 readable lines on items that are missing, unexpected or
// different.
std::string difference(const TreeSnapshot& expected, const TreeSnapshot& actual);

}  // namespace pallion::test
