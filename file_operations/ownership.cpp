#include <cerrno>
#include <cstring>

#include "file_operations/error_makers.h"
#include "file_operations/file_manager.h"
#include "platform/product_log.h"
#include "platform/tree_walk.h"

namespace pallion {

namespace {

using Kind = TreeWalkEntry::Kind;

constexpr mode_t kModeBits = 07777;
constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kItemMode = 0644;

}  // namespace

bool PLFileManager::_traverseDirectory(const URL& root, Error* error,
                                       const TraversalCallback& callback) const {
  constexpr char kFunction[] = "-[PLFileManager _traverseDirectory:error:withBlock:]";
  const std::string path = root.fileSystemRepresentation();
  TreeWalk walk;
  if (!walk.open(path)) {
    const int number = errno;
    return failPOSIX(error, kFunction, __LINE__, number, "fts_open failed for %s with error %s",
                     path, std::strerror(number));
  }
  Error held;
  bool result = true;
  while (const TreeWalkEntry* entry = result ? walk.next() : nullptr) {
    if (entry->kind == Kind::kError || entry->kind == Kind::kNoStatus) {
      result = failPOSIX(&held, kFunction, __LINE__, entry->errorNumber, "Error for path %s: %s",
                         path, std::strerror(entry->errorNumber));
    } else {
      result = callback(*entry, &held);
    }
  }
  if (!walk.close()) {
    const int number = errno;
    result = false;
    if (!held) {
      failPOSIX(&held, kFunction, __LINE__, number, "fts_close failed for %s with error %s", path,
                std::strerror(number));
    }
  }
  if (!result && error) *error = held;
  return result;
}

bool PLFileManager::standardizeOwnershipAtURL(const URL& root, uid_t uid, gid_t gid,
                                              bool validateSymlinks, Error* error) const {
  constexpr char kFunction[] =
      "-[PLFileManager standardizeOwnershipAtURL:toUID:GID:validateSymlinks:error:]";
  return _traverseDirectory(root, error, [&](const TreeWalkEntry& entry, Error* walkError) {
    // Everything of a directory was done before its contents.
    if (entry.kind == Kind::kDirectoryAfter || entry.kind == Kind::kUnreadableDirectory) {
      return true;
    }
    const char* path = entry.path;
    const ItemStatus& status = entry.status;
    if ((status.owner != uid || status.group != gid) && setItemOwner(entry.item, uid, gid) != 0) {
      LogWrite(kLogError, kFunction, "Could not chown %s: %s", path, std::strerror(errno));
    }
    if (entry.kind == Kind::kLink) {
      const URL link = URL::fileURL(path, URL::Kind::kFile);
      if (validateSymlinks && !realPathForURL(&link, &root)) {
        ErrorDetails extra;
        extra.set(kLegacyErrorStringKey, Value::integer(kPLInvalidSymbolicLink));
        *walkError =
            _CreateAndLogError(kFunction, __LINE__, PLInstallerErrorDomain, kPLInvalidSymbolicLink,
                               Error(), &extra, "invalid symlink at %s", path);
        return false;
      }
      return true;  // Linux keeps no mode for links
    }
    const bool isDirectory = entry.kind == Kind::kDirectory || entry.kind == Kind::kCycle;
    const mode_t mode = isDirectory ? kDirectoryMode : kItemMode;
    if ((status.mode & kModeBits) != mode && setItemMode(entry.item, mode) != 0) {
      LogWrite(kLogError, kFunction, "Could not chmod %s: %s", path, std::strerror(errno));
    }
    return true;
  });
}

}  // namespace pallion
