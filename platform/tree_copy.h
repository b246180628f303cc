#pragma once

#include <cstdint>

// The platform's file copy.

namespace pallion {

class TreeCopy {
 public:
  TreeCopy() = default;
  TreeCopy(const TreeCopy&) = delete;
  TreeCopy& operator=(const TreeCopy&) = delete;
  virtual ~TreeCopy() = default;

  // Copies the item at `source`, with everything in it when it is a directory, to `destination`,
  // where nothing may stand (EEXIST). Keeps data and holes, mode with set-id and sticky bits, owner
  // and group, modification and access times in nanoseconds, ACLs and all extended attributes,
  // symbolic links as links, hard links within the tree, FIFOs, sockets and device nodes, names as
  // bytes. Links are followed nowhere; a tree that changes meanwhile can lead the copy nowhere
  // else. Clones or offloads the data where the file systems can. Any depth, any path length, a
  // fixed number of descriptors. A directory in which another volume is mounted is copied without
  // what is mounted there and fails the copy (EXDEV), since its content would be left behind. 0 on
  // success. -1 with errno set at the first item that could not be copied whole, attributes
  // included; what was copied stays, and the source is never changed. Nothing is synced. EBUSY: the
  // source was changed meanwhile, or a file's size lies. EINVAL: the destination is inside the
  // source. ESTALE: a directory was moved away from under the copy. Permissions are the owner's
  // alone, in directories, until everything in them is there.
  virtual int copy(const char* source, const char* destination) = 0;

  // Puts everything written so far to the volume that holds `path` on its medium (syncfs). 0, or -1
  // with errno set; a failure means that the copies made since the last success must be taken for
  // lost.
  virtual int syncVolume(const char* path) = 0;

  // The same for the copies only: makes no call when the volume was synced, by this operation or
  // the one above, since `copy` last wrote to it. When such a sync failed, that is told here once
  // (EIO) and not tried again, since the kernel may have dropped the pages and a second attempt
  // would succeed without them.
  virtual int syncCopies(const char* path) = 0;

  // Bytes of content that this object's copies have written since the process began, those of a
  // copy in progress included. From any thread.
  [[nodiscard]] virtual uint64_t bytesCopied() const { return 0; }

  // The seam; see RecursiveRemove.
  static TreeCopy& current();
  static TreeCopy* replace(TreeCopy* replacement);
  static TreeCopy& system();
};

}  // namespace pallion
