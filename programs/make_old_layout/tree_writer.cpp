#include "programs/make_old_layout/tree_writer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

#include "platform/make_path.h"

namespace pallion {

namespace {

// The user of the installed applications.
constexpr uid_t kUserOwner = 33;

uid_t number(Owner owner) { return owner == Owner::kUser ? kUserOwner : 0; }

// A time in the years that an old layout comes from, to the nanosecond.
std::array<timespec, 2> drawTimes(SeededRandom& random) {
  constexpr time_t kBegin = 1'380'000'000;
  constexpr uint64_t kSeconds = 63'072'000;
  timespec time{};
  time.tv_sec = kBegin + static_cast<time_t>(random.below(kSeconds));
  time.tv_nsec = static_cast<long>(random.below(1'000'000'000));
  return {time, time};
}

bool ownersCanBeSet() {
  static const bool can = geteuid() == 0;
  return can;
}

}  // namespace

void TreeWriter::fail(std::string path, int number) {
  if (failed()) return;
  failedPath_ = std::move(path);
  errorNumber_ = number;
}

void TreeWriter::leaveOut(const std::string& what) {
  if (leftOut_.insert(what).second) {
    std::fprintf(stderr, "make-old-layout: left out: %s\n", what.c_str());
  }
}

Directory Directory::top(TreeWriter& writer, const std::string& path) {
  const int result = MakePath::current().make(path.c_str(), 0755);
  const int descriptor =
      result == 0 || result == EEXIST ? open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
  if (descriptor < 0) writer.fail(path, result == 0 || result == EEXIST ? errno : result);
  if (!ownersCanBeSet()) writer.leaveOut("owners, which only root can give");
  return {writer, descriptor, path, Owner::kSystem, result == 0};
}

Directory::Directory(TreeWriter& writer, int descriptor, std::string path, Owner owner, bool made)
    : writer_(&writer),
      descriptor_(descriptor),
      path_(std::move(path)),
      owner_(owner),
      made_(made) {}

Directory::Directory(Directory&& other) noexcept
    : writer_(other.writer_),
      descriptor_(std::exchange(other.descriptor_, -1)),
      path_(std::move(other.path_)),
      owner_(other.owner_),
      made_(other.made_) {}

Directory::~Directory() {
  if (descriptor_ < 0) return;
  if (!writer_->failed()) {
    const std::array<timespec, 2> times = drawTimes(writer_->random);
    if (made_ && ownersCanBeSet() && fchown(descriptor_, number(owner_), number(owner_)) != 0) {
      writer_->fail(path_, errno);
    } else if (futimens(descriptor_, times.data()) != 0 && (made_ || errno != EPERM)) {
      writer_->fail(path_, errno);  // a directory that stood there may belong to somebody else
    }
  }
  close(descriptor_);
}

void Directory::fail(const std::string& name, int number) {
  writer_->fail(path_ + "/" + name, number);
}

bool Directory::has(const std::string& name) const {
  struct stat status {};
  return fstatat(descriptor_, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

Directory Directory::directory(const std::string& name, mode_t mode) {
  return directory(name, mode, owner_);
}

Directory Directory::directory(const std::string& name, mode_t mode, Owner owner) {
  int below = -1;
  bool made = false;
  if (!writer_->failed()) {
    made = mkdirat(descriptor_, name.c_str(), mode) == 0;
    if (made || errno == EEXIST) {
      below = openat(descriptor_, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    }
    if (below < 0) fail(name, errno);
  }
  return {*writer_, below, path_ + "/" + name, owner, made};
}

int Directory::create(const std::string& name, mode_t mode) {
  if (writer_->failed()) return -1;
  const int file = openat(descriptor_, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (file < 0) fail(name, errno);
  return file;
}

bool Directory::write(int file, const std::string& name, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = ::write(file, content.data(), content.size());
    if (written < 0) {
      fail(name, errno);
      return false;
    }
    content.remove_prefix(static_cast<size_t>(written));
    writer_->bytes += static_cast<uint64_t>(written);
  }
  return true;
}

void Directory::finish(int file, const std::string& name, mode_t mode) {
  const std::array<timespec, 2> times = drawTimes(writer_->random);
  if (ownersCanBeSet() && fchown(file, number(owner_), number(owner_)) != 0) {
    fail(name, errno);
  } else if ((mode & (S_ISUID | S_ISGID)) != 0 && fchmod(file, mode) != 0) {
    fail(name, errno);  // writing and giving away have cleared these bits
  } else if (futimens(file, times.data()) != 0) {
    fail(name, errno);
  }
  ++writer_->files;
  if (close(file) != 0) fail(name, errno);
}

// Owner and times of an item that is not open.
void Directory::dress(const std::string& name) {
  const std::array<timespec, 2> times = drawTimes(writer_->random);
  if (ownersCanBeSet() && fchownat(descriptor_, name.c_str(), number(owner_), number(owner_),
                                   AT_SYMLINK_NOFOLLOW) != 0) {
    fail(name, errno);
  } else if (utimensat(descriptor_, name.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) != 0) {
    fail(name, errno);
  }
  ++writer_->files;
}

void Directory::file(const std::string& name, std::string_view content, mode_t mode) {
  const int file = create(name, mode);
  if (file < 0) return;
  write(file, name, content);
  finish(file, name, mode);
}

void Directory::randomFile(const std::string& name, uint64_t size, mode_t mode) {
  const int file = create(name, mode);
  if (file < 0) return;
  std::array<char, 1 << 16> buffer;
  for (uint64_t left = size; left > 0;) {
    const size_t count = std::min<uint64_t>(left, buffer.size());
    writer_->random.fill(buffer.data(), count);
    if (!write(file, name, {buffer.data(), count})) break;
    left -= count;
  }
  finish(file, name, mode);
}

void Directory::sparseFile(const std::string& name, uint64_t size) {
  const int file = create(name, 0644);
  if (file < 0) return;
  if (lseek(file, static_cast<off_t>(size), SEEK_SET) < 0) fail(name, errno);
  write(file, name, "the end");
  finish(file, name, 0644);
}

void Directory::symbolicLink(const std::string& name, const std::string& target) {
  if (writer_->failed()) return;
  if (symlinkat(target.c_str(), descriptor_, name.c_str()) != 0) return fail(name, errno);
  dress(name);
}

void Directory::hardLink(const std::string& name, const std::string& existing) {
  if (writer_->failed()) return;
  if (linkat(descriptor_, existing.c_str(), descriptor_, name.c_str(), 0) != 0) {
    return fail(name, errno);
  }
  ++writer_->files;
}

void Directory::fifo(const std::string& name) {
  if (writer_->failed()) return;
  if (mknodat(descriptor_, name.c_str(), S_IFIFO | 0644, 0) != 0) {
    if (errno != EPERM) return fail(name, errno);
    return writer_->leaveOut("FIFOs, which this file system does not take");
  }
  dress(name);
}

void Directory::attribute(const std::string& item, const char* name, std::string_view value) {
  if (writer_->failed()) return;
  if (setxattr((path_ + "/" + item).c_str(), name, value.data(), value.size(), 0) == 0) return;
  if (errno != ENOTSUP) return fail(item, errno);
  writer_->leaveOut("extended attributes, which this file system does not take");
}

}  // namespace pallion
