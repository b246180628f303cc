#include "platform/tree_copy_walk.h"

#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "foundation/open_unnoticed.h"
#include "platform/parent_directory.h"

namespace pallion {

namespace {

// Levels that keep their two descriptors.
constexpr size_t kOpenLevels = 12;

constexpr int kOpenDirectory = O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t kPrivate = 0600;

bool fail(int number) {
  errno = number;
  return false;
}

// Without blocking, should a FIFO stand there now.
UniqueDescriptor openSource(const ItemReference& item, int flags) {
  const int all = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | flags;
  return UniqueDescriptor(openUnnoticed(item.descriptor, item.name, all));
}

}  // namespace

int TreeCopyWalk::run(const char* source, const char* destination, dev_t volume,
                      KnownAbilities& known) {
  std::string sourceName;
  std::string destinationName;
  const UniqueDescriptor sourceParent(openParentDirectory(source, sourceName));
  if (!sourceParent) return errno;
  const UniqueDescriptor destinationParent(openParentDirectory(destination, destinationName));
  if (!destinationParent) return errno;
  const ItemReference from{sourceParent.get(), sourceName.c_str()};
  if (!readStatus(from, top_)) return errno;
  CopyAbilities& abilities = known[{top_.device, volume}];
  data_.abilities = abilities;
  const bool copied = copyTop(from, {destinationParent.get(), destinationName.c_str()});
  const int number = copied ? 0 : errno;
  abilities = data_.abilities;
  return number;
}

bool TreeCopyWalk::copyTop(const ItemReference& source, const ItemReference& destination) {
  if (S_ISREG(top_.mode)) return copyFile(source, destination);
  if (!S_ISDIR(top_.mode)) return copySpecial(source, destination);
  if (!enter(source, destination)) return false;
  while (!levels_.empty()) {
    Level& level = levels_.back();
    if (level.directories.empty()) {
      if (!leave()) return false;
    } else {
      const std::string name = std::move(level.directories.back());
      level.directories.pop_back();
      if (!enter({level.source.descriptor(), name.c_str()},
                 {level.destination.get(), name.c_str()})) {
        return false;
      }
    }
  }
  return true;
}

bool TreeCopyWalk::enter(const ItemReference& source, const ItemReference& destination) {
  Level level;
  level.source = DirectoryReader(openSource(source, O_DIRECTORY).release());
  if (!level.source.isOpen() || !readStatus({level.source.descriptor()}, level.sourceStatus)) {
    return false;
  }
  const bool isTop = levels_.empty();
  // The top may well be where a volume is mounted.
  if (isTop ? !sameItem(level.sourceStatus, top_) && fail(EBUSY)
            : !isOfTheTree(level.sourceStatus)) {
    return false;
  }
  if (mkdirat(destination.descriptor, destination.name, 0700) != 0) return false;
  level.destination.reset(openat(destination.descriptor, destination.name, kOpenDirectory));
  if (!level.destination) return false;
  if (isTop && !metadata_.dropInheritedAccess({level.destination.get()}, true)) return false;
  if (!readStatus({level.destination.get()}, level.destinationStatus)) return false;
  if (isTop) topDestination_ = level.destinationStatus;
  level.name = destination.name;
  levels_.push_back(std::move(level));
  if (levels_.size() > kOpenLevels) {
    Level& far = levels_[levels_.size() - 1 - kOpenLevels];
    far.source.close();
    // From the top of the copy the way leads to every place in it.
    if (&far != levels_.data()) far.destination.reset();
  }
  return copyEntries();
}

bool TreeCopyWalk::copyEntries() {
  DirectoryReader& reader = levels_.back().source;
  DirectoryReader::Entry entry;
  while (reader.next(entry)) {
    if (!copyEntry(entry.name, entry.type)) return false;
  }
  return reader.error() == 0 || fail(reader.error());
}

bool TreeCopyWalk::copyEntry(const char* name, unsigned char type) {
  Level& level = levels_.back();
  const ItemReference source{level.source.descriptor(), name};
  const ItemReference destination{level.destination.get(), name};
  if (type == DT_UNKNOWN) {
    ItemStatus status;
    if (!readStatus(source, status)) return false;
    type = static_cast<unsigned char>(IFTODT(status.mode));
  }
  if (type == DT_REG) return copyFile(source, destination);
  if (type != DT_DIR) return copySpecial(source, destination);
  level.directories.emplace_back(name);
  return true;
}

bool TreeCopyWalk::leave() {
  Level& level = levels_.back();
  ItemStatus now;
  if (!readStatus({level.source.descriptor()}, now)) return false;
  // Whatever was added since it was read would be missing.
  if (!sameContent(level.sourceStatus, now)) return fail(EBUSY);
  // Before the mode is set, which may shut the way through "..".
  if (levels_.size() > 1 && !reopen(levels_[levels_.size() - 2], level)) return false;
  const ItemStatus& as = level.destinationStatus;
  if (!metadata_.copy({level.source.descriptor()}, level.sourceStatus, {level.destination.get()},
                      {as.owner, as.group, as.mode & 07777U})) {
    return false;
  }
  levels_.pop_back();
  return true;
}

bool TreeCopyWalk::reopen(Level& above, const Level& below) {
  ItemStatus found;
  if (!above.source.isOpen()) {
    above.source =
        DirectoryReader(openSource({below.source.descriptor(), ".."}, O_DIRECTORY).release());
    if (!above.source.isOpen() || !readStatus({above.source.descriptor()}, found)) return false;
    if (!sameItem(found, above.sourceStatus)) return fail(ESTALE);
  }
  if (!above.destination) {
    above.destination.reset(openat(below.destination.get(), "..", kOpenDirectory));
    if (!above.destination || !readStatus({above.destination.get()}, found)) return false;
    if (!sameItem(found, above.destinationStatus)) return fail(ESTALE);
  }
  return true;
}

bool TreeCopyWalk::copyFile(const ItemReference& source, const ItemReference& destination) {
  const UniqueDescriptor input = openSource(source, 0);
  ItemStatus status;
  if (!input || !readStatus({input.get()}, status)) return false;
  if (!S_ISREG(status.mode)) return fail(EBUSY);
  bool linked = false;
  if (!isOfTheTree(status) || !linkToCopy(status, destination, linked)) return false;
  if (linked) return true;
  // Where nobody else reaches into the directory, a file may have its permissions from the start.
  const mode_t mode = levels_.empty() ? kPrivate : status.mode & 0777U;
  UniqueDescriptor output(openat(destination.descriptor, destination.name,
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
  CreatedAs as;
  if (!output || !created({output.get()}, mode, as) ||
      !data_.copy(input.get(), status, output.get()) ||
      !metadata_.copy({input.get()}, status, {output.get()}, as)) {
    return false;
  }
  // Network file systems tell of failed writes here. The descriptor is gone either way.
  if (close(output.release()) != 0 && errno != EINTR) return false;
  rememberCopy(status, destination.name);
  return true;
}

bool TreeCopyWalk::copySpecial(const ItemReference& source, const ItemReference& destination) {
  ItemStatus status;
  bool linked = false;
  if (!readStatus(source, status) || !isOfTheTree(status) ||
      !linkToCopy(status, destination, linked)) {
    return false;
  }
  if (linked) return true;
  if (S_ISLNK(status.mode)) {
    std::string target(PATH_MAX, '\0');
    const ssize_t length = readlinkat(source.descriptor, source.name, target.data(), target.size());
    if (length < 0) return false;
    if (static_cast<size_t>(length) == target.size()) return fail(ENAMETOOLONG);
    target.resize(static_cast<size_t>(length));
    if (symlinkat(target.c_str(), destination.descriptor, destination.name) != 0) return false;
  } else if (S_ISREG(status.mode) || S_ISDIR(status.mode)) {
    return fail(EBUSY);  // something else stood here when the directory was read
  } else if (mknodat(destination.descriptor, destination.name,
                     (status.mode & static_cast<mode_t>(S_IFMT)) | kPrivate,
                     status.represents) != 0) {
    return false;
  }
  CreatedAs as;
  if (!created(destination, kPrivate, as) || !metadata_.copy(source, status, destination, as)) {
    return false;
  }
  rememberCopy(status, destination.name);
  return true;
}

bool TreeCopyWalk::isOfTheTree(const ItemStatus& status) const {
  if (levels_.empty()) return true;
  if (status.device != top_.device || status.isMountRoot) return fail(EXDEV);
  // The copy is being made inside its own source: there would be no end.
  return !sameItem(status, topDestination_) || fail(EINVAL);
}

bool TreeCopyWalk::created(const ItemReference& item, mode_t asked, CreatedAs& as) {
  const bool isTop = levels_.empty();
  if (!isTop) {
    // Everything in the copy is created by the same process, and has its group from the directory
    // where the directory had it from its own.
    const ItemStatus& directory = levels_.back().destinationStatus;
    as = {directory.owner, directory.group, asked & grantedModeBits_};
    if ((asked & ~knownModeBits_) == 0) return true;
  } else if (!S_ISLNK(top_.mode) && !metadata_.dropInheritedAccess(item, false)) {
    return false;
  }
  ItemStatus status;
  if (!readStatus(item, status)) return false;
  as = {status.owner, status.group, status.mode & 07777U};
  // A volume that gives what was not asked for has rules of its own, and nothing is learned there.
  if (isTop || (as.mode & ~asked) != 0) return true;
  knownModeBits_ |= asked;
  grantedModeBits_ |= as.mode;
  return true;
}

bool TreeCopyWalk::linkToCopy(const ItemStatus& status, const ItemReference& destination,
                              bool& linked) {
  const CopiedLinks::Place* place = status.links > 1 ? links_.find(status.inode) : nullptr;
  if (!place) return true;
  const int directory = openCopied(place->directory);
  if (directory < 0) return false;
  linked = linkat(directory, place->name.c_str(), destination.descriptor, destination.name, 0) == 0;
  return linked;
}

void TreeCopyWalk::rememberCopy(const ItemStatus& status, const char* name) {
  if (status.links < 2 || levels_.empty()) return;
  links_.add(status.inode, placeOf(levels_.size() - 1), name);
}

CopiedLinks::Directory TreeCopyWalk::placeOf(size_t level) {
  size_t known = level;
  while (known > 0 && levels_[known].place == CopiedLinks::kNone) --known;
  for (size_t i = known; i <= level; ++i) {
    if (levels_[i].place != CopiedLinks::kNone) continue;
    const auto parent = i == 0 ? CopiedLinks::kNone : levels_[i - 1].place;
    levels_[i].place = links_.addDirectory(parent, levels_[i].name);
  }
  return levels_[level].place;
}

// From the deepest directory on the way that is still open; the top is always.
int TreeCopyWalk::openCopied(CopiedLinks::Directory directory) {
  if (directory == linkedFrom_) return linkedFromDescriptor_.get();
  linkedFrom_ = CopiedLinks::kNone;
  const CopiedLinks::Directory wanted = directory;
  std::vector<const std::string*> names;
  const auto isOpen = [this](CopiedLinks::Directory number) {
    const size_t depth = links_.directory(number).depth;
    return depth < levels_.size() && levels_[depth].place == number && levels_[depth].destination;
  };
  while (!isOpen(directory)) {
    names.push_back(&links_.directory(directory).name);
    directory = links_.directory(directory).parent;
  }
  const Level& start = levels_[links_.directory(directory).depth];
  UniqueDescriptor reached(fcntl(start.destination.get(), F_DUPFD_CLOEXEC, 0));
  for (auto name = names.rbegin(); reached && name != names.rend(); ++name) {
    reached.reset(openat(reached.get(), (*name)->c_str(), O_PATH | kOpenDirectory));
  }
  if (reached) linkedFrom_ = wanted;
  linkedFromDescriptor_ = std::move(reached);
  return linkedFromDescriptor_.get();
}

}  // namespace pallion
