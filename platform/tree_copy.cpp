#include "platform/tree_copy.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/unique_descriptor.h"
#include "platform/parent_directory.h"
#include "platform/replaceable.h"
#include "platform/tree_copy_walk.h"

namespace pallion {

namespace {

// Only what is opened for real can be synced, and only directories are safe to open.
UniqueDescriptor openDirectoryOf(const char* path) {
  UniqueDescriptor directory(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (directory || (errno != ENOTDIR && errno != ELOOP)) return directory;
  std::string name;
  const UniqueDescriptor parent(openParentDirectory(path, name));
  if (parent) directory.reset(openat(parent.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return directory;
}

// Volumes with copies that have not been synced. May be used from any thread.
class UnsyncedVolumes {
 public:
  // To be called before the copy is made. Stores the volume; false with errno set.
  bool add(const char* destination, dev_t& volume) {
    std::string name;
    const UniqueDescriptor parent(openParentDirectory(destination, name));
    struct stat status {};
    if (!parent || fstat(parent.get(), &status) != 0) return false;
    const std::lock_guard guard(mutex_);
    volume = status.st_dev;
    lost_.try_emplace(volume, false);
    return true;
  }

  int sync(const char* path, bool copiesOnly) {
    const UniqueDescriptor directory = openDirectoryOf(path);
    struct stat status {};
    if (!directory || fstat(directory.get(), &status) != 0) return -1;
    const std::lock_guard guard(mutex_);
    const auto volume = lost_.find(status.st_dev);
    if (volume == lost_.end()) return copiesOnly ? 0 : syncfs(directory.get());
    const bool lost = volume->second;
    if (copiesOnly) lost_.erase(volume);
    if (copiesOnly && lost) {
      errno = EIO;
      return -1;
    }
    const int result = syncfs(directory.get());
    if (copiesOnly || lost) return result;
    if (result == 0) {
      lost_.erase(volume);
    } else {
      volume->second = true;
    }
    return result;
  }

 private:
  std::mutex mutex_;
  // Whether a sync failed of which those who made the copies have not been told yet.
  std::map<dev_t, bool> lost_;
};

class SystemTreeCopy final : public TreeCopy {
 public:
  int copy(const char* source, const char* destination) override {
    dev_t volume = 0;
    if (!unsynced_.add(destination, volume)) return -1;
    const int error = TreeCopyWalk(bytesCopied_).run(source, destination, volume, knownAbilities());
    if (error == 0) return 0;
    errno = error;
    return -1;
  }

  int syncVolume(const char* path) override { return unsynced_.sync(path, false); }
  int syncCopies(const char* path) override { return unsynced_.sync(path, true); }

  [[nodiscard]] uint64_t bytesCopied() const override { return bytesCopied_; }

 private:
  // A thread learns for itself.
  static TreeCopyWalk::KnownAbilities& knownAbilities() {
    static thread_local TreeCopyWalk::KnownAbilities known;
    return known;
  }

  UnsyncedVolumes unsynced_;
  std::atomic<uint64_t> bytesCopied_ = 0;
};

using Seam = Replaceable<TreeCopy, SystemTreeCopy>;

}  // namespace

TreeCopy& TreeCopy::current() { return Seam::current(); }
TreeCopy* TreeCopy::replace(TreeCopy* replacement) { return Seam::replace(replacement); }
TreeCopy& TreeCopy::system() { return Seam::system(); }

}  // namespace pallion
