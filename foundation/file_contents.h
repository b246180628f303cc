#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "foundation/url.h"

// Whole files as bytes. All functions may be called from any thread.

namespace pallion {

class VolumeOrder;

enum class FileCache { kUse, kBypass };

// The content of a regular file. A symbolic link at the last component is not followed (ELOOP);
// anything that is no regular file gives EISDIR (directories) or EFTYPE's stand-in EINVAL, without
// waiting on it. A file above `maximumSize` bytes gives EFBIG. kBypass drops the pages again that
// reading brought in. Nothing on failure; then *errorNumber, where given, holds the errno.
std::optional<std::string> readFile(const URL& url, int* errorNumber = nullptr,
                                    FileCache cache = FileCache::kUse,
                                    uint64_t maximumSize = uint64_t{1} << 31);

// The same of a file whose path leads through no symbolic link at all (ELOOP).
std::optional<std::string> readFileWithoutLinks(const URL& url, int* errorNumber,
                                                uint64_t maximumSize);

// Whether an errno of the readers here and in property_list.h says that the file may well be whole
// but could not be read (EIO, EACCES, EMFILE, ENOMEM, ...), rather than that it is absent, damaged,
// too large or no regular file. What can't be read just now must not be taken for absent.
bool isReadFailure(int errorNumber);

// kSynced: the content is on the medium before the name refers to it, and power loss leaves the old
// file or the whole new one. kOrdered: the same, but the new one may be lost again until anything
// on its volume is synced; that costs no flush of the file system's log. kNotSynced: the same
// promise for readers, and after the death of the process, but not for power loss; for files that
// nobody needs once the system has gone down.
enum class Durability { kSynced, kOrdered, kNotSynced };

// Puts `bytes` at the path in one step: a reader sees the old file or the whole new one. A file
// that is replaced loses its attributes; a symbolic link there is replaced itself. A directory
// there is EISDIR. Answers 0 or the errno of the failed call, after which the old file is untouched
// and no temporary file is left.
//
// The new content has no name until it is complete (O_TMPFILE), and gets its own by linkat where
// nothing stands. Where a file is replaced it passes through one fixed name beside it
// (".<name>.writing"), which a later write of the same file takes over, so a process that dies
// there leaves nothing that a repeated write does not clear.
int writeFileAtomically(const URL& url, std::string_view bytes, Durability durability,
                        mode_t mode = 0644);

// Puts `bytes` at a path in a directory that is still its maker's alone, such as one that is
// renamed to its place when it is complete. Nobody is there to see half of a file, so it has its
// name from the beginning, which takes less of the file system; what a killed process has left
// there is replaced as above. Durability::kOrdered, on the directory's volume. Answers 0 or an
// errno, and then no file is left.
int writeFileInOwnDirectory(const URL& url, std::string_view bytes, VolumeOrder& volume,
                            mode_t mode = 0644);

// The same as writeFileAtomically for a plain name in an open directory (O_PATH is enough).
int writeFileAtomicallyAt(int directory, const std::string& name, std::string_view bytes,
                          Durability durability, mode_t mode = 0644);

}  // namespace pallion
