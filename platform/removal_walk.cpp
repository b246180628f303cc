#include "platform/removal_walk.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "foundation/open_restricted.h"
#include "platform/parent_directory.h"

namespace pallion {

namespace {

constexpr size_t kOpenLevels = 32;
// How often a directory is read again because others put items into it while it was being emptied.
constexpr int kVainPasses = 16;
// How often an entry that is a directory in one call and something else in the next one is tried.
constexpr int kAttempts = 16;
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool isGone(int number) { return number == ENOENT || number == ENOTDIR || number == ELOOP; }

}  // namespace

int RemovalWalk::Level::close() {
  if (!reader.isOpen()) return 0;
  struct stat status {};
  if (fstat(reader.descriptor(), &status) != 0) return errno;
  device = status.st_dev;
  inode = status.st_ino;
  reader.close();
  return 0;
}

int RemovalWalk::Level::compare(int descriptor) const {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return errno;
  return status.st_dev == device && status.st_ino == inode ? 0 : ENOENT;
}

int RemovalWalk::run(const char* path) {
  path_ = path;
  while (path_.size() > 1 && path_.back() == '/') path_.pop_back();
  // An empty directory needs nothing more, nor does a single file or link.
  int number = EISDIR;
  const int at = state_.directory();
  const auto removeEmpty = [&] { return unlinkat(at, path_.c_str(), AT_REMOVEDIR) == 0; };
  using Expected = RemovalState::Expected;
  if (state_.expected() == Expected::kDirectory) {
    if (removeEmpty()) return 0;
    number = errno == ENOTEMPTY || errno == EEXIST ? EISDIR : errno;
  }
  if (state_.expected() == Expected::kItem || (number != EISDIR && number != ENOENT)) {
    if (unlinkat(at, path_.c_str(), 0) == 0) return 0;
    number = errno;
    if (number == EISDIR && removeEmpty()) return 0;
  }
  if (number == ENOENT) return number;
  if (at == AT_FDCWD) {
    openedParent_.reset(openParentDirectory(path_, topName_));
    topParent_ = openedParent_.get();
  } else {
    topParent_ = at;
    topName_ = path_;
  }
  if (topParent_ < 0) {
    number = errno;
  } else if (number == ENAMETOOLONG) {
    number = unlinkat(topParent_, topName_.c_str(), 0) == 0 ? 0 : errno;
    if (number == 0) return 0;
  }
  if (number == ENOENT) return number;
  if (topParent_ < 0) {
    fail(nullptr, number);
  } else {
    removeEntry(topParent_, topName_.c_str(), number == EISDIR ? DT_DIR : DT_UNKNOWN);
    walk();
  }
  return firstError_;
}

void RemovalWalk::walk() {
  while (!levels_.empty() && !stopped_) {
    Level& level = levels_.back();
    DirectoryReader::Entry entry;
    if ((level.trustsShortReads && level.reader.mayBeAtEnd()) || !level.reader.next(entry)) {
      leave();
    } else if (level.kept.empty() || !level.kept.contains(entry.name)) {
      const int directory = level.reader.descriptor();
      const int answer =
          levels_.size() == 1 ? state_.offer(directory, entry.name) : RemovalState::kRemoveIt;
      if (answer == RemovalState::kRemoveIt) {
        removeEntry(directory, entry.name, entry.type);
      } else if (answer != 0) {
        fail(entry.name, answer);
      }
    }
  }
}

void RemovalWalk::removeEntry(int directory, const char* name, unsigned char type) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    int number = EISDIR;
    if (type != DT_DIR) {
      if (unlinkat(directory, name, 0) == 0 || errno == ENOENT) return;
      number = errno;
      // EISDIR is told last: a directory that may not be removed answers why not, and is to be
      // emptied all the same.
      if (number != EISDIR && type != DT_UNKNOWN) return fail(name, number);
    }
    if (enter(directory, name)) return;
    if (number != EISDIR) return fail(name, number);
    type = DT_UNKNOWN;  // exchanged for something else since it was read
  }
  fail(name, EAGAIN);
}

bool RemovalWalk::enter(int directory, const char* name) {
  // One on which something is mounted is none of the tree's, which a look at the device would not
  // tell: that of a bind mount is the same, that of a subvolume another one.
  const int descriptor = openRestricted(directory, name, kDirectoryFlags, RESOLVE_NO_XDEV);
  if (descriptor < 0) {
    const int number = errno == EXDEV ? EBUSY : errno;
    if (number == ENOENT) return true;
    if (isGone(number)) return false;
    // One that can't be read may still be empty.
    if (unlinkat(directory, name, AT_REMOVEDIR) != 0) fail(name, number);
    return true;
  }
  Level level;
  level.reader = DirectoryReader(descriptor);
  if (levels_.size() >= kOpenLevels) {
    if (const int number = levels_[levels_.size() - kOpenLevels].close()) {
      fail(name, number);
      return true;
    }
  }
  if (!levels_.empty()) (path_ += '/') += name;
  level.pathLength = path_.size();
  levels_.push_back(std::move(level));
  return true;
}

void RemovalWalk::leave() {
  if (!reopenAbove()) return;
  Level& level = levels_.back();
  const std::string name = nameOf(levels_.size() - 1);
  const int above = descriptorAbove(levels_.size() - 1);
  if (const int number = level.reader.error(); number != 0) {
    pop();
    return fail(name.c_str(), number);
  }
  if (level.keepsItems) {
    pop();
    return keep(name.c_str());
  }
  if (unlinkat(above, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return pop();
  const int number = errno;
  if (number == ENOTEMPTY || number == EEXIST) {
    if (level.trustsShortReads && level.reader.mayBeAtEnd()) {
      level.trustsShortReads = false;
      return;
    }
    if (++level.vainPasses < kVainPasses && level.reader.seek(0)) return;
  }
  pop();
  if (number == ENOTDIR) return removeEntry(above, name.c_str(), DT_UNKNOWN);
  fail(name.c_str(), number);
}

bool RemovalWalk::reopenAbove() {
  const size_t deepest = levels_.size() - 1;
  if (deepest == 0 || levels_[deepest - 1].reader.isOpen()) return true;
  Level& above = levels_[deepest - 1];
  const int descriptor = openat(levels_[deepest].reader.descriptor(), "..", kDirectoryFlags);
  if (descriptor < 0) return descendAgain(deepest - 1);
  DirectoryReader reader(descriptor);
  // The directory below may have been moved: then its ".." is anywhere.
  if (above.compare(descriptor) != 0) return descendAgain(deepest - 1);
  above.reader = std::move(reader);
  return true;
}

// Opens the level `target` by the names that lead to it. Where the way ends, so does the stack.
bool RemovalWalk::descendAgain(size_t target) {
  DirectoryReader reader;
  for (size_t i = 0; i <= target; ++i) {
    const std::string name = nameOf(i);
    const int descriptor =
        openat(i == 0 ? topParent_ : reader.descriptor(), name.c_str(), kDirectoryFlags);
    int number = descriptor < 0 ? errno : 0;
    DirectoryReader next(descriptor);
    if (number == 0) number = levels_[i].compare(descriptor);
    if (number != 0) {
      while (levels_.size() > i) pop();
      if (i > 0) levels_.back().reader = std::move(reader);
      // What was moved away is no longer part of the tree; what stands in its place is met when the
      // level is read.
      if (!isGone(number)) fail(name.c_str(), number);
      return false;
    }
    reader = std::move(next);
  }
  levels_[target].reader = std::move(reader);
  return true;
}

void RemovalWalk::pop() {
  levels_.pop_back();
  if (!levels_.empty()) path_.resize(levels_.back().pathLength);
}

void RemovalWalk::keep(const char* name) {
  if (levels_.empty()) return;
  Level& level = levels_.back();
  level.keepsItems = true;
  level.trustsShortReads = false;  // it won't be empty, so only the true end will do
  level.kept.emplace(name);
}

void RemovalWalk::fail(const char* name, int number) {
  if (firstError_ == 0) firstError_ = number;
  const size_t length = path_.size();
  if (!levels_.empty()) (path_ += '/') += name;
  if (!state_.report(path_.c_str(), number)) stopped_ = true;
  path_.resize(length);
  keep(name);
}

int RemovalWalk::descriptorAbove(size_t level) const {
  return level == 0 ? topParent_ : levels_[level - 1].reader.descriptor();
}

std::string RemovalWalk::nameOf(size_t level) const {
  if (level == 0) return topName_;
  const size_t start = levels_[level - 1].pathLength + 1;
  return path_.substr(start, levels_[level].pathLength - start);
}

}  // namespace pallion
