#pragma once

#include <sys/types.h>
#include <time.h>

namespace pallion {

// An item: an open descriptor, or a name in an open directory for what can't be opened (links) or
// must not be (FIFOs, sockets, devices). The name is never followed when it is a link.
struct ItemReference {
  int descriptor = -1;
  const char* name = nullptr;
};

struct ItemStatus {
  dev_t device = 0;
  ino_t inode = 0;
  mode_t mode = 0;  // with the kind
  uid_t owner = 0;
  gid_t group = 0;
  nlink_t links = 0;
  off_t size = 0;
  off_t allocated = 0;   // bytes
  dev_t represents = 0;  // device nodes
  timespec accessed{};
  timespec modified{};
  timespec changed{};
  bool isMountRoot = false;  // known since Linux 5.8
};

// False with errno set on failure.
bool readStatus(const ItemReference& item, ItemStatus& status);
bool sameItem(const ItemStatus& left, const ItemStatus& right);
// Whether the content was left alone between the two.
bool sameContent(const ItemStatus& left, const ItemStatus& right);

// 0, or -1 with errno set. A link has no mode on Linux.
int setItemOwner(const ItemReference& item, uid_t owner, gid_t group);
int setItemMode(const ItemReference& item, mode_t mode);

}  // namespace pallion
