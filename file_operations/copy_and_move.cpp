#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "file_operations/error_makers.h"
#include "file_operations/file_manager.h"
#include "platform/product_log.h"
#include "platform/set_aside.h"
#include "platform/tree_copy.h"

namespace pallion {

namespace {

enum class Source { kPresent, kMissing, kUnknown };

// The test that the forms which accept a missing source make first.
Source sourceState(const URL& source, Error* error, const char* function) {
  struct stat status {};
  if (lstat(source.fileSystemRepresentation(), &status) == 0) return Source::kPresent;
  const int number = errno;
  if (number == ENOENT) return Source::kMissing;
  failPOSIX(error, function, __LINE__, number, "stat of %@ failed: %s", source,
            std::strerror(number));
  return Source::kUnknown;
}

bool failCopy(Error* error, const char* function, int number, const URL& source,
              const URL& destination) {
  return failPOSIX(error, function, __LINE__, number, "copyfile of %@ to %@ failed: %s", source,
                   destination, std::strerror(number));
}

// Takes away what has been copied. The rename comes first: from then on nobody takes a half-removed
// source for the item, whenever the process dies.
bool discardMoveSource(const URL& source, Error* error, const char* function) {
  std::string asidePath;
  if (setAside(source.fileSystemRepresentation(), asidePath) != 0) {
    const int number = errno;
    return failPOSIX(error, function, __LINE__, number, "setting aside %@ failed: %s", source,
                     std::strerror(number));
  }
  return PLFileManager::defaultManager().removeItemAtURL(
      URL::fileURL(asidePath, source.isDirectory() ? URL::Kind::kDirectory : URL::Kind::kFile),
      error);
}

}  // namespace

bool PLFileManager::_copyItemAtURL(const URL& source, const URL& destination, bool failIfSrcMissing,
                                   Error* error) const {
  constexpr char kFunction[] = "-[PLFileManager _copyItemAtURL:toURL:failIfSrcMissing:error:]";
  if (!failIfSrcMissing) {
    const Source state = sourceState(source, error, kFunction);
    if (state != Source::kPresent) return state == Source::kMissing;
  }
  if (TreeCopy::current().copy(source.fileSystemRepresentation(),
                               destination.fileSystemRepresentation()) == 0) {
    return true;
  }
  return failCopy(error, kFunction, errno, source, destination);
}

bool PLFileManager::_moveItemAtURL(const URL& source, const URL& destination, bool failIfSrcMissing,
                                   Error* error) const {
  constexpr char kFunction[] = "-[PLFileManager _moveItemAtURL:toURL:failIfSrcMissing:error:]";
  if (!failIfSrcMissing) {
    const Source state = sourceState(source, error, kFunction);
    if (state != Source::kPresent) return state == Source::kMissing;
  }
  if (rename(source.fileSystemRepresentation(), destination.fileSystemRepresentation()) == 0)
    return true;
  if (errno != EXDEV) {
    const int number = errno;
    return failPOSIX(error, kFunction, __LINE__, number, "rename of %@ to %@ failed: %s", source,
                     destination, std::strerror(number));
  }
  if (!_copyItemAtURL(source, destination, true, error)) return false;
  // The copy must be on its medium before the source goes. A failed sync may have dropped pages for
  // good, so it is not tried again: the source stays, and a later move copies anew.
  if (TreeCopy::current().syncVolume(destination.fileSystemRepresentation()) != 0) {
    return failCopy(error, kFunction, errno, source, destination);
  }
  Error removal;
  if (!discardMoveSource(source, &removal, kFunction)) {
    LogWrite(kLogError, kFunction, "Failed to remove move source after copy at %@ : %@",
             source.path(), removal);
  }
  return true;
}

}  // namespace pallion
