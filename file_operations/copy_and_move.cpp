#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <utility>

#include "file_operations/error_makers.h"
#include "file_operations/file_manager.h"
#include "file_operations/pending_moves.h"
#include "platform/product_log.h"
#include "platform/set_aside.h"
#include "platform/tree_copy.h"

namespace pallion {

namespace {

constexpr char kMove[] = "-[PLFileManager _moveItemAtURL:toURL:failIfSrcMissing:error:]";

enum class Source { kPresent, kMissing, kUnknown };

// The test of the forms which accept a missing source.
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
  PendingMoves move;
  return move._moveItemAtURL(source, destination, failIfSrcMissing, error) && move.complete(error);
}

bool PendingMoves::_moveItemAtURL(const URL& source, const URL& destination, bool failIfSrcMissing,
                                  Error* error) {
  if (rename(source.fileSystemRepresentation(), destination.fileSystemRepresentation()) == 0)
    return true;
  const int number = errno;
  if (number != EXDEV) {
    // Whether there is anything to move is asked only here: most often there is, and the rename has
    // told so.
    if (!failIfSrcMissing) {
      const Source state = sourceState(source, error, kMove);
      if (state != Source::kPresent) return state == Source::kMissing;
    }
    return failPOSIX(error, kMove, __LINE__, number, "rename of %@ to %@ failed: %s", source,
                     destination, std::strerror(number));
  }
  if (!PLFileManager::defaultManager().copyItemAtURL(source, destination, error)) return false;
  copied_.push_back({source, destination});
  return true;
}

bool PendingMoves::moveOntoEmptyDirectory(const URL& source, const URL& destination) {
  // With a slash behind it the kernel takes no name but a directory's.
  const std::string directory = source.fileSystemRepresentation() + std::string("/");
  return rename(directory.c_str(), destination.fileSystemRepresentation()) == 0;
}

bool PendingMoves::complete(Error* error) {
  const std::vector<Move> copied = std::exchange(copied_, {});
  for (const Move& move : copied) {
    if (TreeCopy::current().syncCopies(move.destination.fileSystemRepresentation()) != 0)
      return failCopy(error, kMove, errno, move.source, move.destination);
  }
  for (const Move& move : copied) discardSource(move.source);
  return true;
}

// The rename comes first: from then on nobody takes a half-removed source for the item, whenever
// the process dies.
void PendingMoves::discardSource(const URL& source) {
  Error error;
  std::string asidePath;
  if (setAside(source.fileSystemRepresentation(), asidePath) != 0) {
    const int number = errno;
    failPOSIX(&error, kMove, __LINE__, number, "setting aside %@ failed: %s", source,
              std::strerror(number));
  } else if (PLFileManager::defaultManager().removeItemAtURL(
                 URL::fileURL(asidePath,
                              source.isDirectory() ? URL::Kind::kDirectory : URL::Kind::kFile),
                 &error)) {
    return;
  }
  LogWrite(kLogError, kMove, "Failed to remove move source after copy at %@ : %@", source.path(),
           error);
}

}  // namespace pallion
