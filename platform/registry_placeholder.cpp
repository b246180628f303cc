#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

#include "foundation/file_contents.h"
#include "platform/embedded_registry.h"
#include "platform/product_log.h"
#include "platform/staged_package.h"
#include "platform/store_metadata.h"
#include "platform/tree_copy.h"

// Installation of placeholders.

namespace pallion {

namespace {

constexpr const char* kInstall = "-[Registry installApplication:withOptions:error:usingBlock:]";

// Gives a bundle that was moved away back unless it is kept.
class MovedBundle {
 public:
  MovedBundle(std::string from, std::string to) : from_(std::move(from)), to_(std::move(to)) {}
  MovedBundle(const MovedBundle&) = delete;
  MovedBundle& operator=(const MovedBundle&) = delete;
  ~MovedBundle() {
    if (moved_ &&
        renameat2(AT_FDCWD, to_.c_str(), AT_FDCWD, from_.c_str(), RENAME_NOREPLACE) != 0) {
      LogWrite(kLogError, kInstall, "Failed to move %s back to %s: %s", to_, from_,
               strerrordesc_np(errno));
    }
  }

  // 0 or an errno. A bundle on another volume is copied, and is its maker's to remove.
  int move() {
    moved_ = rename(from_.c_str(), to_.c_str()) == 0;
    if (moved_) return 0;
    if (errno != EXDEV) return errno;
    copied_ = true;
    return TreeCopy::current().copy(from_.c_str(), to_.c_str()) == 0 ? 0 : errno;
  }
  [[nodiscard]] bool wasCopied() const { return copied_; }
  void keep() { moved_ = false; }

 private:
  std::string from_;
  std::string to_;
  bool moved_ = false;
  bool copied_ = false;
};

// The attributes and the metadata file of a placeholder in `container`. 0 or an errno.
int furnish(const std::string& container, const std::string& bundlePath, const Dictionary& options,
            VolumeOrder& volume) {
  int failed = markAsPlaceholder(bundlePath);
  if (failed == 0)
    failed = setInstallType(bundlePath, options.get(kAppInstallTypeKey).uint64Value());
  const Value metadata = options.get(kAppBriscaMetadataKey);
  if (failed == 0 && metadata.asData()) {
    const URL url = URL::fileURL(container + "/" + kBriscaMetadataName, URL::Kind::kFile);
    failed = writeFileInOwnDirectory(url, *metadata.asData(), volume);
  }
  return failed;
}

}  // namespace

Outcome EmbeddedRegistry::installPlaceholder(const URL& url, const std::string& identifier,
                                             const Dictionary& options) {
  const std::string source = url.fileSystemRepresentation();
  const std::string name = url.lastPathComponent();
  if (!isPlainName(name) || url.pathExtension() != "app") {
    return Refusal{RegistryErrorCode::kPackageInspection, source, 0,
                   "is no application bundle by its name"};
  }
  BundleFacts facts;
  if (Outcome refused = readBundleFacts(url.deletingLastPathComponent().fileSystemRepresentation(),
                                        name, facts)) {
    return refused;
  }
  if (Outcome refused = judgeIdentifier(facts, identifier, source)) return refused;
  std::optional<BundleRow> row;
  if (!database_->findBundle(identifier, row)) return database_->failure();
  const BundleFacts* builtIn = nullptr;
  if (Outcome unreadable = builtIns_.find(identifier, builtIn)) return unreadable;
  if (builtIn || (row && row->isReal())) {
    return Refusal{RegistryErrorCode::kIdentifierInUse, source, 0,
                   identifier + " is installed and needs no placeholder"};
  }

  RegistryChange recording = change(kInstall);
  if (Outcome failed = recording.begin()) return failed;
  std::string uuid;
  if (Outcome failed = recording.make(Kind::kPlaceholder, uuid)) return failed;
  const std::string container = containers_.incoming(Kind::kPlaceholder, uuid);
  const std::string bundlePath = container + "/" + name;
  // Goes back before the change removes the container.
  MovedBundle bundle(source, bundlePath);
  int number = bundle.move();
  if (number == 0) number = furnish(container, bundlePath, options, containers_.order());
  // Where the bundle was made, its content came before its names; of a copy nothing is sure yet.
  if (number == 0 && bundle.wasCopied() && TreeCopy::current().syncVolume(container.c_str()) != 0)
    number = errno;
  if (number != 0)
    return Refusal{RegistryErrorCode::kInstallation, "Taking over " + source, number, ""};

  const BundleRow before = row.value_or(BundleRow());
  BundleRow now{identifier, bundleTypeOf(name), before.data, uuid, name, true, facts.version};
  if (Outcome failed = recording.storeBundle(now)) return failed;
  if (before.hasBundle()) {
    Outcome failed =
        recording.storeTrash({before.container, TrashRow::Kind::kBundleContainer, uuid});
    if (failed) return failed;
  }
  if (Outcome failed = recording.commit()) return failed;
  bundle.keep();
  return std::nullopt;
}

}  // namespace pallion
