#include <cerrno>
#include <cstring>
#include <fts.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "file_operations/error_makers.h"
#include "file_operations/file_manager.h"
#include "platform/product_log.h"

namespace pallion {

namespace {

constexpr mode_t kModeBits = 07777;
constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kItemMode = 0644;

bool isDirectory(const FTSENT& entry) {
  return entry.fts_info == FTS_D || entry.fts_info == FTS_DP || entry.fts_info == FTS_DNR ||
         entry.fts_info == FTS_DC;
}

bool isLink(const FTSENT& entry) {
  return entry.fts_info == FTS_SL || entry.fts_info == FTS_SLNONE;
}

}  // namespace

bool PLFileManager::_traverseDirectory(const URL& root, Error* error,
                                       const TraversalCallback& callback) const {
  constexpr char kFunction[] = "-[PLFileManager _traverseDirectory:error:withBlock:]";
  const std::string path = root.fileSystemRepresentation();
  std::string argument = path;
  char* const paths[] = {argument.data(), nullptr};
  FTS* walk = fts_open(paths, FTS_PHYSICAL | FTS_NOCHDIR | FTS_XDEV, nullptr);
  if (!walk) {
    const int number = errno;
    return failPOSIX(error, kFunction, __LINE__, number, "fts_open failed for %s with error %s",
                     path, std::strerror(number));
  }
  Error held;
  bool result = true;
  while (result) {
    errno = 0;  // the end of the walk is told from a failure by errno alone
    const FTSENT* entry = fts_read(walk);
    const int number = entry ? entry->fts_errno : errno;
    if (!entry && number == 0) break;
    if (!entry || entry->fts_info == FTS_ERR || entry->fts_info == FTS_NS) {
      result = failPOSIX(&held, kFunction, __LINE__, number, "Error for path %s: %s", path,
                         std::strerror(number));
    } else {
      result = callback(*entry, &held);
    }
  }
  if (fts_close(walk) != 0) {
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
  return _traverseDirectory(root, error, [&](const FTSENT& entry, Error* walkError) {
    // Everything of a directory was done before its contents.
    if (entry.fts_info == FTS_DP) return true;
    const char* path = entry.fts_path;
    const struct stat& status = *entry.fts_statp;
    if ((status.st_uid != uid || status.st_gid != gid) && lchown(path, uid, gid) != 0) {
      LogWrite(kLogError, kFunction, "Could not chown %s: %s", path, std::strerror(errno));
    }
    if (isLink(entry)) {
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
    const mode_t mode = isDirectory(entry) ? kDirectoryMode : kItemMode;
    if ((status.st_mode & kModeBits) != mode && chmod(path, mode) != 0) {
      LogWrite(kLogError, kFunction, "Could not chmod %s: %s", path, std::strerror(errno));
    }
    return true;
  });
}

}  // namespace pallion
