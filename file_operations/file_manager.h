#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <sys/types.h>
#include <vector>

#include "foundation/error.h"
#include "foundation/url.h"
#include "foundation/value.h"

namespace pallion {

struct TreeWalkEntry;

// File operations with exact error records. One object for the process, without state: every
// operation may be called from any thread, and calls do not know of each other.
//
// Operations answer false or nothing on failure and then fill `error`, where it is given; otherwise
// they leave it alone (one exception below). No operation follows a symbolic link at the last
// component of a location. Records of the POSIX domain carry the errno of the failed call and are
// not logged; records of PLInstallerErrorDomain are logged when made.
class PLFileManager {
 public:
  static PLFileManager& defaultManager();

  PLFileManager(const PLFileManager&) = delete;
  PLFileManager& operator=(const PLFileManager&) = delete;

  // --- Existence. When it can't be learned both answer false, and a line at level 3 says why.
  [[nodiscard]] bool itemExistsAtURL(const URL& url) const;
  // True only for ENOENT.
  [[nodiscard]] bool itemDoesNotExistAtURL(const URL& url) const;

  // --- Listing. The entries of a directory, one level deep, without "." and "..", in the
  // directory's own order. A subdirectory is marked as a directory; a symbolic link, or an entry of
  // unknown type, is not. Ignored links are logged at level 5. POSIX record "_IterateDirectory for
  // ... returned ...".
  std::optional<std::vector<URL>> urlsForItemsInDirectoryAtURL(const URL& url,
                                                               bool ignoringSymlinks,
                                                               Error* error) const;

  // --- Removal of an item and everything in it. True also when nothing was there. An item that
  // can't be removed does not keep the others; each is logged at level 3, and the first one's
  // number becomes the record's. A null URL is EFAULT.
  bool removeItemAtURL(const URL* url, Error* error) const;
  bool removeItemAtURL(const URL& url, Error* error) const { return removeItemAtURL(&url, error); }

  // --- Directories. An item that stands there already is accepted as it is, but for the
  // data-protection class, which is set on it when one is given (-1: none); then it must be a
  // directory. `mode` is subject to the process's file-creation mask.
  bool createDirectoryAtURL(const URL& url, bool withIntermediateDirectories, mode_t mode,
                            int32_t protectionClass, Error* error) const;
  bool createDirectoryAtURL(const URL& url, bool withIntermediateDirectories, mode_t mode,
                            Error* error) const {
    return createDirectoryAtURL(url, withIntermediateDirectories, mode, -1, error);
  }
  // A new directory "temp.XXXXXX" of mode 0700. Clears `error` first, where given. A failure is a
  // logged PLInstallerErrorDomain record (4) with the template under PLPathArgumentErrorKey.
  std::optional<URL> createTemporaryDirectoryInDirectoryURL(const URL& parent, Error* error) const;

  // --- Copy and move, of whole trees with all metadata; links stay links. Nothing may stand at a
  // copy's destination. The IfExists forms succeed without doing anything when the source is not
  // there.
  //
  // A move across volumes copies, puts the copy on its medium, and takes the source away; see
  // PendingMoves::complete. A copy that fails, or can't be put on its medium, leaves the source
  // whole.
  bool copyItemIfExistsAtURL(const URL& source, const URL& destination, Error* error) const {
    return _copyItemAtURL(source, destination, false, error);
  }
  bool copyItemAtURL(const URL& source, const URL& destination, Error* error) const {
    return _copyItemAtURL(source, destination, true, error);
  }
  bool moveItemIfExistsAtURL(const URL& source, const URL& destination, Error* error) const {
    return _moveItemAtURL(source, destination, false, error);
  }
  bool moveItemAtURL(const URL& source, const URL& destination, Error* error) const {
    return _moveItemAtURL(source, destination, true, error);
  }

  // --- Store metadata: carries "Manifest.plist", "BriscaArtwork", "BriscaMetadata.plist" and
  // "GeoJSON", those that are there, from one directory to another. A failed item is a logged
  // PLInstallerErrorDomain record (24) with its failure key under kLegacyErrorStringKey; it ends
  // the capture only when `failureIsFatal`, otherwise the answer is always true.
  bool captureStoreDataFromDirectory(const URL& source, const URL& destination, bool doCopy,
                                     bool failureIsFatal, Error* error) const;

  // --- Data-protection classes, through a descriptor of the item.
  bool dataProtectionClassOfItemAtURL(const URL& url, int32_t& protectionClass, Error* error) const;
  // The class is set even where it stands already, unless `predicate` (empty for none) declines the
  // current one; that is a success.
  using ClassPredicate = std::function<bool(int32_t current)>;
  bool setDataProtectionClassOfItemAtURL(const URL& url, int32_t protectionClass,
                                         const ClassPredicate& predicate, Error* error) const;

  // --- Attributes of bundles: "com.orlix.palliond.placeholder" (32-bit integer 1) and
  // "com.orlix.palliond.installType" (unsigned 64-bit integer), both in the machine's byte order.
  // Failures are logged PLInstallerErrorDomain records (4).
  bool markBundleAsPlaceholder(const URL& bundle, Error* error) const;
  // True for a value of four bytes, whatever they are; every failure answers false.
  [[nodiscard]] bool bundleAtURLIsPlaceholder(const URL& bundle) const;
  // The unsigned value of a number; none sets 0.
  bool setInstallType(const Value& installType, const URL& bundle, Error* error) const;
  // An unsigned number, 0 for a bundle without the attribute; none on failure.
  Value installTypeForBundle(const URL& bundle, Error* error) const;

  // --- Containment. The real path of `suspicious`, without links, "." and "..", as a file
  // location, when it lies inside `base` (or is the base); nothing otherwise, and a line at level 3
  // says why. Holds against directories on the way that are links out, absolute links, "..", and
  // the two paths /var and /private/var of one volume. A `suspicious` that is itself a relative
  // link is judged by the text of that link: where it leads on through further links is not looked
  // at. What does not exist yet is judged by what does. The base's path must be a prefix of the
  // other one. Null is rejected. The answer is about the moment of the call.
  std::optional<URL> realPathForURL(const URL* suspicious, const URL* base) const;

  // --- Symbolic links.
  bool createSymbolicLinkAtURL(const URL& url, const URL& destination, Error* error) const;
  // The location of the link's text; a relative one is taken from the link's directory. A text of
  // 1024 bytes and more is ENAMETOOLONG.
  std::optional<URL> destinationOfSymbolicLinkAtURL(const URL& url, Error* error) const;

  // --- Ownership. Gives every item of a tree one owner and group, directories the mode 0755 and
  // all others 0644 (links keep theirs). Items that are right already are left untouched. A change
  // that fails is logged at level 3, and the walk goes on. With `validateSymlinks` a link that does
  // not resolve to a place inside the tree ends the walk with a logged PLInstallerErrorDomain
  // record (70). Directories on other volumes are not entered.
  bool standardizeOwnershipAtURL(const URL& root, uid_t uid, gid_t gid, bool validateSymlinks,
                                 Error* error) const;

 private:
  PLFileManager() = default;

  // Walks a tree, directories before and after their contents; ends when the callback answers
  // false. The callback's record stays until a later one replaces it.
  using TraversalCallback = std::function<bool(const TreeWalkEntry& entry, Error* error)>;
  bool _traverseDirectory(const URL& root, Error* error, const TraversalCallback& callback) const;

  // The depth of a path counted from `startingDepth`: ".." is one less, any other name one more.
  // False as soon as it falls below the start.
  bool _validateSymlink(const std::string* path, int startingDepth, int* endingDepth) const;
  std::optional<URL> _realPathForURL(const URL& url, bool allowNonExistentPathComponents) const;
  // The real path of the longest prefix that has one, with the rest appended. The root alone is
  // never tried.
  std::optional<URL> _realPathWhatExistsInPath(const std::string& path) const;

  bool _copyItemAtURL(const URL& source, const URL& destination, bool failIfSrcMissing,
                      Error* error) const;
  bool _moveItemAtURL(const URL& source, const URL& destination, bool failIfSrcMissing,
                      Error* error) const;
};

}  // namespace pallion
