#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/unique_descriptor.h"
#include "platform/tree_walk.h"
#include "programs/migration_host/owner_view.h"
#include "programs/migration_host/snapshot_item_reader.h"

namespace pallion::host {

// Goes over items, one after the other and each sorted by `pathBefore`, while threads (one a
// processor) read the content ahead. In memory are the entries that are being read, the names of
// the directories that the walk is inside of, and the files of the item that have several links.
class SnapshotWalk {
 public:
  struct Found {
    enum class Kind {
      kItem,     // the next item begins
      kEntry,    // something in it
      kProblem,  // of `entry` only path and errorNumber: nothing is known of what is there
    };
    Kind kind = Kind::kItem;
    SnapshotEntry entry;
  };
  // The path of the next item, empty for one that is nowhere; nothing after the last one.
  using NextItem = std::function<std::optional<std::string>()>;
  // Called now and then with the bytes read so far.
  using Tick = std::function<void(uint64_t bytes)>;

  // Changes the working directory of its own threads only.
  SnapshotWalk(const OwnerView& owners, NextItem nextItem, Tick tick);
  SnapshotWalk(const SnapshotWalk&) = delete;
  SnapshotWalk& operator=(const SnapshotWalk&) = delete;
  ~SnapshotWalk();

  // Valid until the next call; null after the last one. An item of which nothing is there has no
  // entries.
  const Found* next();
  [[nodiscard]] uint64_t bytesRead() const { return bytes_.load(std::memory_order_relaxed); }

 private:
  // What was met and perhaps waits for its content.
  struct Slot {
    Found found;
    ItemStatus status;
    UniqueDescriptor descriptor;
    std::string name;
    bool isDone = true;
  };

  bool advance();
  void meet(const TreeWalkEntry& entry);
  Slot& add(Found::Kind kind);
  void addProblem(std::string path, int errorNumber);
  void readLater(const TreeWalkEntry& entry, Slot& slot);
  void handOver();
  bool isDone(const Slot& slot);
  void await(const Slot& slot);
  void recogniseLink(Slot& slot);
  void work();

  const OwnerView owners_;
  const NextItem nextItem_;
  const Tick tick_;
  const size_t windowSize_;
  std::atomic<uint64_t> bytes_{0};

  std::optional<TreeWalk> walk_;
  std::string top_;
  std::optional<dev_t> topDevice_;
  bool isAtEnd_ = false;
  std::deque<std::unique_ptr<Slot>> window_;  // in order; the first one is handed out next
  std::vector<Slot*> batch_;                  // to be given to the threads
  std::unique_ptr<Slot> handedOut_;
  std::map<std::pair<dev_t, ino_t>, std::string> linked_;  // first path of each file with links

  std::mutex mutex_;  // guards the following and `isDone`
  std::condition_variable hasWork_;
  std::condition_variable isReady_;
  std::deque<Slot*> waiting_;
  const Slot* awaited_ = nullptr;
  bool isOver_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace pallion::host
