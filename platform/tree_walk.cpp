#include "platform/tree_walk.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "foundation/open_unnoticed.h"
#include "platform/parent_directory.h"

namespace pallion {

namespace {

constexpr size_t kOpenLevels = 32;
constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

TreeWalkEntry::Kind kindOf(mode_t mode) {
  if (S_ISREG(mode)) return TreeWalkEntry::Kind::kFile;
  return S_ISLNK(mode) ? TreeWalkEntry::Kind::kLink : TreeWalkEntry::Kind::kOther;
}

}  // namespace

bool TreeWalk::open(const std::string& path) {
  if (path.empty()) {
    errno = ENOENT;
    return false;
  }
  path_ = path;
  parent_.reset(openParentDirectory(path, topName_));
  // What has no name in its directory ("/") is reached by its path; and what is wrong with a path
  // shows again.
  if (!parent_) topName_ = path;
  return true;
}

bool TreeWalk::close() {
  levels_.clear();
  const int parent = parent_.release();
  return parent < 0 || ::close(parent) == 0 || errno == EINTR;
}

const TreeWalkEntry* TreeWalk::next() {
  if (std::exchange(atTop_, false)) return visit({descriptorAbove(), topName_.c_str()}, DT_DIR);
  while (!levels_.empty()) {
    Level& level = levels_.back();
    path_.resize(level.pathLength);
    if (std::exchange(level.isNew, false)) {
      if (level.status.device != device_) return leave(TreeWalkEntry::Kind::kDirectoryAfter, 0);
      if (!beginReading(level)) return leave(TreeWalkEntry::Kind::kUnreadableDirectory, errno);
    }
    if (!nextName(level)) {
      const int number = level.isRead ? 0 : level.reader.error();
      return number == 0 ? leave(TreeWalkEntry::Kind::kDirectoryAfter, 0) : fail(number);
    }
    if (path_.back() != '/') path_ += '/';
    path_ += name_.text;
    const TreeWalkEntry* entry = visit({level.reader.descriptor(), name_.text.c_str()}, name_.type);
    // What is gone meanwhile is no longer part of the tree.
    if (entry->kind == TreeWalkEntry::Kind::kNoStatus && entry->errorNumber == ENOENT) continue;
    return entry;
  }
  return nullptr;
}

const TreeWalkEntry* TreeWalk::visit(const ItemReference& item, unsigned char type) {
  for (;;) {
    if (type == DT_DIR) {
      const int descriptor = openUnnoticed(item.descriptor, item.name, kOpenDirectory);
      if (descriptor >= 0) return visitDirectory(item, descriptor);
    }
    entry_.status = {};
    if (!readStatus(item, entry_.status)) {
      return answer(TreeWalkEntry::Kind::kNoStatus, {}, errno);
    }
    if (!S_ISDIR(entry_.status.mode)) return answer(kindOf(entry_.status.mode), item);
    // Can't be read now, but perhaps once it was handed out.
    if (type == DT_DIR) return visitDirectory(item, -1);
    type = DT_DIR;
  }
}

// Takes the descriptor; without one the status is there already.
const TreeWalkEntry* TreeWalk::visitDirectory(const ItemReference& item, int descriptor) {
  Level level;
  level.reader = DirectoryReader(descriptor);
  if (descriptor >= 0 && !readStatus({descriptor}, entry_.status)) {
    return answer(TreeWalkEntry::Kind::kNoStatus, {}, errno);
  }
  if (levels_.empty()) device_ = entry_.status.device;
  if (entry_.status.device == device_ && !entered_.insert(entry_.status.inode).second) {
    return answer(TreeWalkEntry::Kind::kCycle, item);
  }
  level.status = entry_.status;
  level.pathLength = path_.size();
  levels_.push_back(std::move(level));
  if (levels_.size() > kOpenLevels && !readAhead(levels_[levels_.size() - 1 - kOpenLevels])) {
    return fail(errno);
  }
  return answer(TreeWalkEntry::Kind::kDirectory,
                descriptor >= 0 ? ItemReference{descriptor} : item);
}

bool TreeWalk::beginReading(Level& level) {
  const auto listed = [&] { return order_ == Order::kAsStored || readNames(level); };
  if (level.reader.isOpen()) return listed();
  const bool isTop = levels_.size() == 1;
  const char* name = isTop ? topName_.c_str() : path_.c_str() + path_.rfind('/') + 1;
  level.reader = DirectoryReader(openUnnoticed(descriptorAbove(), name, kOpenDirectory));
  ItemStatus now;
  if (!level.reader.isOpen() || !readStatus({level.reader.descriptor()}, now)) return false;
  if (sameItem(now, level.status)) return listed();
  errno = ESTALE;
  return false;
}

bool TreeWalk::nextName(Level& level) {
  if (!level.unread.empty()) {
    name_ = std::move(level.unread.back());
    level.unread.pop_back();
    return true;
  }
  DirectoryReader::Entry entry;
  if (level.isRead || !level.reader.next(entry)) return false;
  name_.text = entry.name;
  name_.type = entry.type;
  return true;
}

// Reads what is left of the directory into memory and gives its descriptor up.
bool TreeWalk::readAhead(Level& level) {
  if (!level.reader.isOpen()) return true;
  if (!readNames(level)) return false;
  level.reader.close();
  return true;
}

bool TreeWalk::readNames(Level& level) {
  DirectoryReader::Entry entry;
  if (level.isRead) return true;
  while (level.reader.next(entry)) level.unread.push_back({entry.name, entry.type});
  if (level.reader.error() != 0) {
    errno = level.reader.error();
    return false;
  }
  if (order_ == Order::kByName) {
    std::sort(level.unread.begin(), level.unread.end(),
              [](const Name& left, const Name& right) { return right.text < left.text; });
  } else {
    std::reverse(level.unread.begin(), level.unread.end());
  }
  level.isRead = true;
  return true;
}

const TreeWalkEntry* TreeWalk::leave(TreeWalkEntry::Kind kind, int number) {
  if (!reopenAbove()) return fail(errno);
  entry_.status = levels_.back().status;
  levels_.pop_back();
  if (entry_.status.device == device_) entered_.erase(entry_.status.inode);
  return answer(kind, {}, number);
}

bool TreeWalk::reopenAbove() {
  if (levels_.size() < 2) return true;
  Level& above = levels_[levels_.size() - 2];
  if (above.reader.isOpen()) return true;
  above.reader =
      DirectoryReader(openUnnoticed(levels_.back().reader.descriptor(), "..", kOpenDirectory));
  ItemStatus found;
  if (!above.reader.isOpen() || !readStatus({above.reader.descriptor()}, found)) return false;
  // The directory below may have been moved: then its ".." is anywhere.
  if (sameItem(found, above.status)) return true;
  errno = ESTALE;
  return false;
}

const TreeWalkEntry* TreeWalk::answer(TreeWalkEntry::Kind kind, const ItemReference& item,
                                      int number) {
  entry_.path = path_.c_str();
  entry_.kind = kind;
  entry_.errorNumber = number;
  entry_.item = item;
  return &entry_;
}

const TreeWalkEntry* TreeWalk::fail(int number) {
  levels_.clear();
  entry_.status = {};
  return answer(TreeWalkEntry::Kind::kError, {}, number);
}

int TreeWalk::descriptorAbove() const {
  if (levels_.size() > 1) return levels_[levels_.size() - 2].reader.descriptor();
  return parent_ ? parent_.get() : AT_FDCWD;
}

}  // namespace pallion
