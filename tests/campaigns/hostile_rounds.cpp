#include "tests/campaigns/hostile_rounds.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "file_operations/file_manager.h"
#include "platform/recursive_remove.h"
#include "platform/tree_copy.h"
#include "platform/uuid.h"
#include "programs/make_old_layout/seeded_random.h"
#include "tests/helpers/child_process.h"
#include "tests/helpers/recorded_logs.h"

namespace pallion::test {

namespace {

namespace fs = std::filesystem;

constexpr int kMostRoundsInVain = 500;
constexpr uint64_t kSwapsARound = 200;
// Paths inside a device.
const std::string kContainers = "/private/var/mobile/Applications";
const std::string kCanary = "/private/var/mobile/Media";

constexpr const char* kCanaryContent = "of the canary";

}  // namespace

HostileOutcome HostileRounds::run(uint64_t swaps) {
  HostileOutcome outcome;
  const auto start = std::chrono::steady_clock::now();
  int inVain = 0;
  while (outcome.swaps < swaps && inVain < kMostRoundsInVain && outcome.canaryChanges == 0) {
    const int pauses[] = {0, 0, 50};
    swapper_.letLoose(prepare(outcome.rounds),
                      std::chrono::microseconds(pauses[outcome.rounds % std::size(pauses)]));
    bool succeeded = operate();
    while (isRepeatable() && swapper_.swaps() < kSwapsARound) succeeded &= operate();
    const uint64_t survived = swapper_.call();
    ++outcome.rounds;
    outcome.swaps += survived;
    outcome.errors += succeeded ? 0 : 1;
    inVain = survived > 0 ? 0 : inVain + 1;
    outcome.firstChange = difference(canary_, canaryNow()) + leak();
    if (!outcome.firstChange.empty()) ++outcome.canaryChanges;
  }
  outcome.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return outcome;
}

SwappedPair HostileRounds::pairFor(const std::string& relative, const std::string& target) {
  const fs::path path(relative);
  SwappedPair pair{path.parent_path(), path.filename(), "links/" + std::to_string(links_++)};
  root_.makeLink(pair.link, target);
  return pair;
}

void HostileRounds::dropLinks() {
  fs::remove_all(root_ / "links");
  links_ = 0;
}

namespace {

// A small tree of our own making: "tree/<a>/<b>" with a few items in each <b>; all <a> and <b> are
// swapped.
class OwnTree : public HostileRounds {
 public:
  OwnTree() {
    fill("canary", kCanaryContent);
    root_.makeDirectory("canary/empty");
    canaryIsComplete();
  }

 protected:
  void fill(const std::string& top, const std::string& content) const {
    for (const std::string& directory : inner_) {
      for (const char* name : {"/1", "/2", "/3", "/sub/4"})
        root_.makeFile(top + directory + name, content);
      root_.makeLink(top + directory + "/link", "nowhere");
    }
  }
  std::vector<SwappedPair> pairsIn(const std::string& top) {
    std::vector<SwappedPair> pairs;
    for (const auto& directories : {inner_, outer_}) {
      for (const std::string& directory : directories)
        pairs.push_back(pairFor(top + directory, root_ / ("canary" + directory)));
    }
    return pairs;
  }

 private:
  const std::vector<std::string> outer_ = {"/a0", "/a1", "/a2"};
  const std::vector<std::string> inner_ = [this] {
    std::vector<std::string> all;
    for (const std::string& outer : outer_)
      for (int i = 0; i < 6; ++i) all.push_back(outer + "/b" + std::to_string(i));
    return all;
  }();
};

class RemovalRounds : public OwnTree {
 protected:
  std::vector<SwappedPair> prepare(uint64_t) override {
    fs::remove_all(root_ / "tree");
    dropLinks();
    fill("tree", "of the tree");
    return pairsIn("tree");
  }
  bool operate() override {
    RemovalState state;
    return RecursiveRemove::system().remove((root_ / "tree").c_str(), state) == 0;
  }
};

// The source is swapped, or the copy while it is being made.
class CopyRounds : public OwnTree {
 public:
  CopyRounds() { fill("tree", "of the tree"); }

 protected:
  std::vector<SwappedPair> prepare(uint64_t round) override {
    fs::remove_all(root_ / "copy");
    if (round == 0) pairs_ = pairsIn("tree");
    if (round % 2 == 0) return pairs_;
    // One alone, again and again, to be in time between two calls; and to where nothing is in the
    // way of what would be made there.
    const SwappedPair& source = pairs_[round / 2 % pairs_.size()];
    if (!copied_.link.empty()) fs::remove_all(root_ / copied_.link);
    copied_ = pairFor("copy" + source.parent.substr(std::strlen("tree")) + "/" + source.name,
                      root_ / "canary/empty");
    return {copied_};
  }
  bool operate() override {
    return TreeCopy::system().copy((root_ / "tree").c_str(), (root_ / "copy").c_str()) == 0;
  }
  std::string leak() override {
    if (!exists(root_ / "copy")) return "";
    for (const auto& entry : fs::recursive_directory_iterator(root_ / "copy")) {
      if (entry.is_symlink() || !entry.is_regular_file()) continue;
      if (readAll(entry.path()) == kCanaryContent) return "copied: " + entry.path().string();
    }
    return "";
  }

 private:
  std::vector<SwappedPair> pairs_;
  SwappedPair copied_;
};

class OwnershipRounds : public OwnTree {
 public:
  OwnershipRounds() { fill("tree", "of the tree"); }

 protected:
  std::vector<SwappedPair> prepare(uint64_t round) override {
    if (round == 0) pairs_ = pairsIn("tree");
    log_.lines.clear();
    return pairs_;
  }
  bool operate() override {
    // Another one each time, so that everything is to be changed.
    const auto owner = static_cast<uid_t>(1000 + ++operations_ % 2);
    return PLFileManager::defaultManager().standardizeOwnershipAtURL(
               URL::fileURL(root_ / "tree"), owner, owner, false, nullptr) &&
           log_.lines.empty();
  }

 private:
  [[nodiscard]] bool isRepeatable() const override { return true; }

  std::vector<SwappedPair> pairs_;
  RecordedProductLog log_;
  uint64_t operations_ = 0;
};

// The old containers of a device and each directory in them, or the directories that the run makes
// in them, which are there for a moment each. Outside the device no link leads, since
// it is the root of the run; one canary is in it, another one outside.
class MigrationRounds : public HostileRounds {
 public:
  MigrationRounds() {
    runProgram({"make-old-layout", "--root", root_ / "original", "--apps", "8", "--vpn", "1",
                "--groups", "2", "--harbors", "1", "--placeholders", "1", "--files", "6"});
    // Containers without a bundle are removed with all that is in them.
    const std::vector<fs::path> containers{fs::directory_iterator(root_ / "original" + kContainers),
                                           {}};
    for (const fs::path& container : containers) {
      const std::string remains = kContainers + "/" + makeUUID();
      for (int i = 0; i < kRemainsWidth; ++i) {
        copy(fs::relative(container / "Library", root_.path()),
             "original" + remains + "/Library" + std::to_string(i));
      }
    }
    for (const auto& entry : fs::recursive_directory_iterator(root_ / "original" + kContainers)) {
      const std::string relative =
          fs::relative(entry.path(), root_ / "original" + kContainers).string();
      if (!entry.is_directory() || entry.is_symlink()) continue;
      directories_.push_back(relative);
      const bool isContainer = relative.find('/') == std::string::npos;
      if (isContainer) stagings_.push_back(relative + "/Staging");
    }
    copy("original" + kContainers, "original" + kCanary);
    root_.makeDirectory("original" + kCanary + "/empty");
    copy("original" + kContainers, "canary");
  }

 protected:
  std::vector<SwappedPair> prepare(uint64_t round) override {
    fs::remove_all(root_ / "device");
    dropLinks();
    copy("original", "device");
    canaryIsComplete();
    std::vector<SwappedPair> pairs;
    if (round % 4 == 2) {
      for (const std::string& staging : stagings_) {
        pairs.push_back(pairFor("device" + kContainers + "/" + staging, kCanary + "/empty"));
      }
      return pairs;
    }
    for (const std::string& directory : directories_) {
      // In most rounds many are spared, so that the run gets further.
      if (round % 4 != 0 && random_.below(8) != 0) continue;
      pairs.push_back(pairFor(
          "device" + kContainers + "/" + directory,
          pairs.size() % 8 == 7 ? root_ / "canary/" + directory : kCanary + "/" + directory));
    }
    return pairs;
  }
  bool operate() override {
    const int status = runProgram({"migration-host", "-q", "--root", root_ / "device"});
    if (status != 0 && status != 1) broken_ = "migration-host: " + std::to_string(status);
    return status == 0;
  }
  std::string leak() override { return broken_; }

  [[nodiscard]] TreeSnapshot canaryNow() const override {
    TreeSnapshot all = snapshotTree(root_ / "canary", {.changeTimes = true});
    for (auto& [path, line] : snapshotTree(root_ / "device" + kCanary, {.changeTimes = true})) {
      all["inside the device: " + path] = line;
    }
    return all;
  }

 private:
  void copy(const std::string& from, const std::string& to) const {
    root_.makeDirectory(fs::path(to).parent_path().string());
    if (TreeCopy::system().copy((root_ / from).c_str(), (root_ / to).c_str()) != 0) {
      perror(to.c_str());
      std::abort();
    }
  }
  static int runProgram(std::vector<std::string> arguments) {
    arguments[0] = std::string(PALLION_BINARY_DIR) + "/bin/" + arguments[0];
    // The leak check needs /proc, which the root has not.
    return runProcess({.arguments = arguments, .environment = {"ASAN_OPTIONS=detect_leaks=0"}})
        .status;
  }

  static constexpr int kRemainsWidth = 5;

  std::vector<std::string> directories_;
  std::vector<std::string> stagings_;
  SeededRandom random_{1};
  std::string broken_;
};

template <class Rounds>
std::unique_ptr<HostileRounds> make() {
  return std::make_unique<Rounds>();
}

}  // namespace

const std::map<std::string, std::function<std::unique_ptr<HostileRounds>()>> kHostileRounds = {
    {"removal", make<RemovalRounds>},
    {"copy", make<CopyRounds>},
    {"ownership", make<OwnershipRounds>},
    {"migration", make<MigrationRounds>}};

}  // namespace pallion::test
