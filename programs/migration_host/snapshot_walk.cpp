#include "programs/migration_host/snapshot_walk.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace pallion::host {

namespace {

// So many entries are handed to the threads, and waited for, at a time: each wakes somebody.
constexpr size_t kBatch = 16;
constexpr auto kTickInterval = std::chrono::milliseconds(200);

// Each entry that waits for its content holds a descriptor.
size_t windowWithinLimits() {
  constexpr size_t kLargest = 256;
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kLargest;
  return std::clamp<size_t>(limit.rlim_cur / 4, 4, kLargest);
}

int openFile(const ItemReference& item) {
  // A FIFO that took the file's place is not waited for.
  constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  const int descriptor = openat(item.descriptor, item.name, kFlags | O_NOATIME);
  // Only the owner and who has the privilege may leave the access time alone.
  if (descriptor >= 0 || errno != EPERM) return descriptor;
  return openat(item.descriptor, item.name, kFlags);
}

}  // namespace

SnapshotWalk::SnapshotWalk(const OwnerView& owners, NextItem nextItem, Tick tick)
    : owners_(owners),
      nextItem_(std::move(nextItem)),
      tick_(std::move(tick)),
      windowSize_(windowWithinLimits()) {
  const unsigned count = std::max(1U, std::thread::hardware_concurrency());
  for (unsigned i = 0; i < count; ++i) threads_.emplace_back([this] { work(); });
}

SnapshotWalk::~SnapshotWalk() {
  {
    const std::lock_guard lock(mutex_);
    isOver_ = true;
    waiting_.clear();
  }
  hasWork_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

const SnapshotWalk::Found* SnapshotWalk::next() {
  if (window_.size() <= windowSize_ / 2) {
    while (window_.size() < windowSize_ && advance()) {
    }
    handOver();
    tick_(bytesRead());
  }
  if (window_.empty()) return nullptr;
  if (!isDone(*window_.front())) {
    await(*window_[std::min(window_.size() - 1, kBatch)]);
    await(*window_.front());
  }
  handedOut_ = std::move(window_.front());
  window_.pop_front();
  recogniseLink(*handedOut_);
  return &handedOut_->found;
}

// Goes one step on; false at the end.
bool SnapshotWalk::advance() {
  if (isAtEnd_) return false;
  if (!walk_) {
    std::optional<std::string> top = nextItem_();
    isAtEnd_ = !top;
    if (isAtEnd_) return false;
    top_ = std::move(*top);
    topDevice_.reset();
    add(Found::Kind::kItem);
    if (top_.empty()) return true;
    walk_.emplace(TreeWalk::Order::kByName);
    if (!walk_->open(top_)) {
      addProblem("", errno);
      walk_.reset();
    }
    return true;
  }
  if (const TreeWalkEntry* entry = walk_->next()) {
    meet(*entry);
  } else {
    walk_.reset();
  }
  return true;
}

void SnapshotWalk::meet(const TreeWalkEntry& entry) {
  using Kind = TreeWalkEntry::Kind;
  std::string path(entry.path + top_.size());
  if (!path.empty()) path.erase(0, 1);
  switch (entry.kind) {
    case Kind::kDirectoryAfter:
      return;
    case Kind::kCycle:
      return addProblem(std::move(path), ELOOP);
    case Kind::kNoStatus:
      // An item that is gone has no entries.
      if (path.empty() && (entry.errorNumber == ENOENT || entry.errorNumber == ENOTDIR)) return;
      [[fallthrough]];
    case Kind::kUnreadableDirectory:
    case Kind::kError:
      return addProblem(std::move(path), entry.errorNumber);
    default:
      break;
  }
  if (!topDevice_) topDevice_ = entry.status.device;
  Slot& slot = add(Found::Kind::kEntry);
  slot.status = entry.status;
  SnapshotEntry& found = slot.found.entry;
  found.path = std::move(path);
  found.mode = entry.status.mode;
  found.owner = owners_.userOf(entry.status);
  found.group = owners_.groupOf(entry.status);
  found.modified = entry.status.modified;
  if (S_ISREG(found.mode)) found.size = static_cast<uint64_t>(entry.status.size);
  if (S_ISCHR(found.mode) || S_ISBLK(found.mode)) found.represents = entry.status.represents;
  readLater(entry, slot);
  // What is mounted on a directory is not walked into.
  if (entry.kind == Kind::kDirectory && entry.status.device != *topDevice_) {
    addProblem(found.path, EXDEV);
  }
}

SnapshotWalk::Slot& SnapshotWalk::add(Found::Kind kind) {
  window_.push_back(std::make_unique<Slot>());
  window_.back()->found.kind = kind;
  return *window_.back();
}

void SnapshotWalk::addProblem(std::string path, int errorNumber) {
  Slot& slot = add(Found::Kind::kProblem);
  slot.found.entry.path = std::move(path);
  slot.found.entry.errorNumber = errorNumber;
}

void SnapshotWalk::readLater(const TreeWalkEntry& entry, Slot& slot) {
  const bool isFile = entry.kind == TreeWalkEntry::Kind::kFile;
  slot.descriptor.reset(isFile ? openFile(entry.item)
                               : fcntl(entry.item.descriptor, F_DUPFD_CLOEXEC, 0));
  if (!slot.descriptor) {
    slot.found.entry.errorNumber = errno;
    return;
  }
  if (!isFile && entry.item.name) slot.name = entry.item.name;
  slot.isDone = false;
  batch_.push_back(&slot);
  if (batch_.size() >= kBatch) handOver();
}

void SnapshotWalk::handOver() {
  {
    const std::lock_guard lock(mutex_);
    waiting_.insert(waiting_.end(), batch_.begin(), batch_.end());
  }
  batch_.clear();
  hasWork_.notify_all();
}

bool SnapshotWalk::isDone(const Slot& slot) {
  const std::lock_guard lock(mutex_);
  return slot.isDone;
}

void SnapshotWalk::await(const Slot& slot) {
  std::unique_lock lock(mutex_);
  awaited_ = &slot;
  while (!isReady_.wait_for(lock, kTickInterval, [&slot] { return slot.isDone; })) {
    lock.unlock();
    tick_(bytesRead());
    lock.lock();
  }
  awaited_ = nullptr;
}

// Other names of a file are told from separate files by the first name.
void SnapshotWalk::recogniseLink(Slot& slot) {
  if (slot.found.kind == Found::Kind::kItem) linked_.clear();
  if (slot.found.kind != Found::Kind::kEntry || S_ISDIR(slot.status.mode) ||
      slot.status.links < 2) {
    return;
  }
  SnapshotEntry& entry = slot.found.entry;
  const auto [known, isNew] =
      linked_.try_emplace({slot.status.device, slot.status.inode}, entry.path);
  if (!isNew) entry.sameFileAs = known->second;
}

void SnapshotWalk::work() {
  const bool ownsDirectory = unshare(CLONE_FS) == 0;
  const int number = errno;
  SnapshotItemReader reader(bytes_);
  std::unique_lock lock(mutex_);
  for (;;) {
    hasWork_.wait(lock, [this] { return isOver_ || !waiting_.empty(); });
    if (isOver_) return;
    Slot& slot = *waiting_.front();
    waiting_.pop_front();
    lock.unlock();
    if (slot.name.empty() || ownsDirectory) {
      reader.read({slot.descriptor.get(), slot.name.empty() ? nullptr : slot.name.c_str()},
                  slot.found.entry);
    } else {
      slot.found.entry.errorNumber = number;
    }
    slot.descriptor.reset();
    lock.lock();
    slot.isDone = true;
    if (awaited_ == &slot) isReady_.notify_one();
  }
}

}  // namespace pallion::host
