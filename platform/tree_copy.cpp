#include "platform/tree_copy.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "foundation/unique_descriptor.h"
#include "platform/parent_directory.h"
#include "platform/replaceable.h"
#include "platform/tree_copy_walk.h"

namespace pallion {

namespace {

class SystemTreeCopy final : public TreeCopy {
 public:
  int copy(const char* source, const char* destination) override {
    const int error = TreeCopyWalk().run(source, destination);
    if (error == 0) return 0;
    errno = error;
    return -1;
  }

  int syncVolume(const char* path) override {
    // Only what is opened for real can be synced, and only directories are safe to open.
    UniqueDescriptor directory(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory && (errno == ENOTDIR || errno == ELOOP)) {
      std::string name;
      const UniqueDescriptor parent(openParentDirectory(path, name));
      if (!parent) return -1;
      directory.reset(openat(parent.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    return directory ? syncfs(directory.get()) : -1;
  }
};

using Seam = Replaceable<TreeCopy, SystemTreeCopy>;

}  // namespace

TreeCopy& TreeCopy::current() { return Seam::current(); }
TreeCopy* TreeCopy::replace(TreeCopy* replacement) { return Seam::replace(replacement); }
TreeCopy& TreeCopy::system() { return Seam::system(); }

}  // namespace pallion
