#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/unique_descriptor.h"
#include "foundation/url.h"
#include "foundation/volume_order.h"
#include "platform/recursive_remove.h"

namespace pallion {

// The registry's directories below a root, and the two places of a container: Containers/Incoming
// while no commit has recorded it, Containers/{Bundle,Data,Group} from then on. Nothing outside
// Incoming is ever removed because it is not known.
class RegistryContainers {
 public:
  // What an entry of Incoming holds; its name is "<kind>.<UUID>".
  enum class Kind {
    kBundle,       // a staging directory, taken over whole
    kPlaceholder,  // a placeholder bundle and its metadata, perhaps in part
    kData,         // an empty data container
    kGroup,        // an empty group container
    kCopy,         // part of a copy from another volume
  };
  struct IncomingEntry {
    std::string name;
    // Nothing for a name that no installation gives.
    std::optional<std::pair<Kind, std::string>> container;
  };

  explicit RegistryContainers(const URL& root);

  [[nodiscard]] std::string databasePath() const { return library_ + "/registry.sqlite"; }
  [[nodiscard]] std::string libraryDirectory() const { return library_; }
  [[nodiscard]] std::string applicationsDirectory() const { return applications_; }
  [[nodiscard]] std::string incomingDirectory() const { return containers_ + "/Incoming"; }
  [[nodiscard]] std::string harborDirectory() const { return library_ + "/SafeHarbors"; }
  [[nodiscard]] std::string incoming(Kind kind, const std::string& uuid) const;
  // Where a recorded container of that kind (not kCopy) stands.
  [[nodiscard]] std::string place(Kind kind, const std::string& uuid) const;

  // Makes the directories for containers. 0 or an errno.
  [[nodiscard]] int makeDirectories() const;
  // Whether any container stands in its place; false also when that can't be told.
  [[nodiscard]] bool anyPlaced() const;

  // Makes an empty container of kind kPlaceholder, kData (with the directories of every data
  // container) or kGroup in Incoming. 0 or an errno; EEXIST when it stands there already.
  [[nodiscard]] int make(Kind kind, const std::string& uuid) const;
  // Moves a recorded container from Incoming to its place, a taken-over staging directory with its
  // bundles out of Payload; who knows their names saves looking. 0 or an errno; repeating it after
  // a failure or an interruption goes on.
  [[nodiscard]] int settle(Kind kind, const std::string& uuid,
                           const std::vector<std::string>& bundles = {});
  // Sees that a recorded data or group container stands in its place; makes a new one where it was
  // lost. 0 or an errno. Nobody looks for the one that `settle` has just moved there.
  [[nodiscard]] int ensure(Kind kind, const std::string& uuid);

  // Whether their volume keeps order. Where it doesn't, it has to be synced before a commit that
  // speaks of its directories.
  VolumeOrder& order() { return order_; }
  [[nodiscard]] bool syncsKeepOrder() { return order_.isKept(incomingDirectory().c_str()); }

  // Descriptor of the directory of recorded bundle containers, opened when first asked for. -1 with
  // errno set on failure.
  [[nodiscard]] int bundleDirectory();

  // Drops what was learnt from the directories and holds only for as long as nobody else may change
  // them.
  void forget();

  // The entries of Incoming; nothing with errno set when they can't be listed.
  [[nodiscard]] std::optional<std::vector<IncomingEntry>> listIncoming() const;

 private:
  std::string library_;
  std::string containers_;
  std::string applications_;
  VolumeOrder order_;
  std::string settledLast_;
  UniqueDescriptor bundleDirectory_;
};

// Names in a directory but "." and ".."; nothing with errno set on failure. A symbolic link at
// `path` is not followed (ENOTDIR).
std::optional<std::vector<std::string>> namesInDirectory(const std::string& path);
// The same of a path of which no component is a symbolic link (ELOOP).
std::optional<std::vector<std::string>> namesInDirectoryWithoutLinks(const std::string& path);

// Removes a tree. 0, also when there is none, or the errno of the first item that could not be
// removed.
int removeTree(const std::string& path);
// The same with what the caller wants to hear and decide.
int removeTree(const std::string& path, RemovalState& state);

// Sets the item aside in one rename, then removes it. 0 once it is set aside (a failing removal is
// only logged for `function`), or the errno of the rename; then it is where it was.
int takeAway(const std::string& path, const char* function);

}  // namespace pallion
