#pragma once

#include <fcntl.h>

// The platform's recursive remove.

namespace pallion {

// What one removal tells and asks of its caller. Belongs to one call.
class RemovalState {
 public:
  // Answers whether the removal is to go on with the other items.
  using ErrorCallback = bool (*)(RemovalState& state, const char* path, void* context);

  RemovalState() = default;
  RemovalState(const RemovalState&) = delete;
  RemovalState& operator=(const RemovalState&) = delete;
  virtual ~RemovalState() = default;

  // Each answers false with errno set when it fails.
  virtual bool setErrorCallback(ErrorCallback callback);
  virtual bool setErrorContext(void* context);
  // The errno of the item that is being reported; only within the callback.
  virtual bool errorNumber(int& number) const;

  // What the item most likely is, which decides what is tried first; kItem at the beginning.
  // kFilledDirectory: nothing else is tried, and an item that is not there counts as removed.
  enum class Expected { kItem, kDirectory, kFilledDirectory };
  void expect(Expected expected) { expected_ = expected; }
  [[nodiscard]] Expected expected() const { return expected_; }

  // With a directory, which stays the caller's, the removed item is given by its name in there.
  void startAt(int directory) { directory_ = directory; }
  [[nodiscard]] int directory() const { return directory_; }

  // Offers an item that stands right in the directory that is removed, by the descriptor of that
  // directory, before the item is removed. Answers kRemoveIt; 0 when it is no longer there; or the
  // errno with which it stays and is reported.
  static constexpr int kRemoveIt = -1;
  virtual int offer(int directory, const char* name);

  // For implementations: reports one failing item by its whole path, answers whether to go on.
  bool report(const char* path, int number);

 private:
  ErrorCallback callback_ = nullptr;
  void* context_ = nullptr;
  int errorNumber_ = 0;
  Expected expected_ = Expected::kItem;
  int directory_ = AT_FDCWD;
};

class RecursiveRemove {
 public:
  RecursiveRemove() = default;
  RecursiveRemove(const RecursiveRemove&) = delete;
  RecursiveRemove& operator=(const RecursiveRemove&) = delete;
  virtual ~RecursiveRemove() = default;

  // Removes the item at `path` and, when it is a directory, everything in it, depth first. A
  // symbolic link is removed itself, and nothing outside the tree is ever touched, whatever another
  // process does to the tree meanwhile: every step is made relative to a directory descriptor and
  // follows no link. Directories on another volume that are mounted inside the tree are not entered
  // (EBUSY). Every failing item is reported to the state's callback; where that answers to go on
  // (or there is none), the walk continues with the others. A directory that kept items is not
  // reported again for being not empty. Any depth, any path length, a fixed number of descriptors.
  // 0 on success; -1 with errno set when `path` itself could not be looked at or removed. Items
  // that failed deeper down and were reported make the result -1 as well, with the first one's
  // errno.
  virtual int remove(const char* path, RemovalState& state) = 0;
  // A state for one call of `remove`, to be deleted by the caller.
  virtual RemovalState* allocateState() { return new RemovalState; }

  // The seam: the implementation in use. `replace` with null goes back to the Linux one; answers
  // the one before.
  static RecursiveRemove& current();
  static RecursiveRemove* replace(RecursiveRemove* replacement);
  // The Linux implementation, for replacements that forward to it.
  static RecursiveRemove& system();
};

}  // namespace pallion
