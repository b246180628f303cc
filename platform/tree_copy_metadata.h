#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <sys/types.h>

#include "platform/item_status.h"

namespace pallion {

// What the creation of an item gave it.
struct CreatedAs {
  uid_t owner = 0;
  gid_t group = 0;
  mode_t mode = 0;  // permission bits
};

// Carries everything but the content from one item to another. One thread at a time.
class MetadataCopy {
 public:
  // Gives `destination` the owner, mode, ACLs, extended attributes and times of the source, whose
  // `status` was read before its content was. Calls nothing to set what the item was created with.
  // False with errno set at the first thing that could not be set.
  bool copy(const ItemReference& source, const ItemStatus& status, const ItemReference& destination,
            const CreatedAs& created);

  // Takes away the ACLs that a new item got from its directory.
  bool dropInheritedAccess(const ItemReference& item, bool isDirectory);

 private:
  bool copyAttributes(const ItemReference& source, const ItemReference& destination);
  bool copyAttribute(const ItemReference& source, const ItemReference& destination,
                     const char* name);
  // Runs `work`, which is about attributes of items by name; on kernels that have no calls for it,
  // on a thread whose working directory can be changed.
  bool reachingNames(const std::function<bool()>& work);

  ssize_t list(const ItemReference& item, char* names, size_t size) const;
  ssize_t get(const ItemReference& item, const char* name, void* value, size_t size) const;
  int set(const ItemReference& item, const char* name, const void* value, size_t size) const;
  int remove(const ItemReference& item, const char* name) const;

  bool lacksNameCalls_ = false;
  bool ownsWorkingDirectory_ = false;
  std::unique_ptr<char[]> longList_;
  std::unique_ptr<char[]> longValue_;
};

}  // namespace pallion
