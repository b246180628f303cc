#include "file_operations/file_manager.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "file_operations/error_makers.h"
#include "file_operations/path_strings.h"
#include "foundation/open_unnoticed.h"
#include "platform/directory_reader.h"
#include "platform/item_status.h"
#include "platform/product_log.h"
#include "platform/recursive_remove.h"

namespace pallion {

PLFileManager& PLFileManager::defaultManager() {
  // Never destroyed: threads that outlive main may still use it.
  static PLFileManager* const kManager = new PLFileManager;
  return *kManager;
}

// ---------------------------------------------------------------------------------------------------------------
// Existence

namespace {

// 0 when there is an item, ENOENT when there is none; any other errno is logged.
int existence(const URL& url, const char* function) {
  struct stat status {};
  if (lstat(url.fileSystemRepresentation(), &status) == 0) return 0;
  const int number = errno;
  if (number != ENOENT) {
    LogWrite(kLogError, function, "Failed to determine if %@ exists: %s", url,
             std::strerror(number));
  }
  return number;
}

}  // namespace

bool PLFileManager::itemExistsAtURL(const URL& url) const {
  return existence(url, "-[PLFileManager itemExistsAtURL:]") == 0;
}

bool PLFileManager::itemDoesNotExistAtURL(const URL& url) const {
  return existence(url, "-[PLFileManager itemDoesNotExistAtURL:]") == ENOENT;
}

// ---------------------------------------------------------------------------------------------------------------
// Listing

namespace {

unsigned char typeOfEntry(int directory, const DirectoryReader::Entry& entry) {
  if (entry.type != DT_UNKNOWN) return entry.type;
  ItemStatus status;
  if (!readStatus({directory, entry.name}, status)) return DT_UNKNOWN;
  const auto type = static_cast<unsigned char>(IFTODT(status.mode));
  const bool tells = type == DT_DIR || type == DT_LNK || type == DT_REG;
  return tells ? type : static_cast<unsigned char>(DT_UNKNOWN);
}

// Calls `visit(name, type)` for every entry but "." and "..". 0 or an errno.
template <class Visit>
int _IterateDirectory(const URL& url, const Visit& visit) {
  DirectoryReader reader(openUnnoticed(AT_FDCWD, url.fileSystemRepresentation(),
                                       O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!reader.isOpen()) return errno;
  DirectoryReader::Entry entry;
  while (reader.next(entry)) visit(entry.name, typeOfEntry(reader.descriptor(), entry));
  return reader.error();
}

}  // namespace

std::optional<std::vector<URL>> PLFileManager::urlsForItemsInDirectoryAtURL(const URL& url,
                                                                            bool ignoringSymlinks,
                                                                            Error* error) const {
  constexpr char kFunction[] =
      "-[PLFileManager urlsForItemsInDirectoryAtURL:ignoringSymlinks:error:]";
  std::vector<URL> items;
  const int number = _IterateDirectory(url, [&](const char* name, unsigned char type) {
    if (type == DT_LNK && ignoringSymlinks) {
      LogWrite(kLogNotice, kFunction, "Ignoring symlink at %s/%s", url.fileSystemRepresentation(),
               name);
      return;
    }
    items.push_back(url.appending(PallionAdditions::stringWithFileSystemRepresentation(name),
                                  type == DT_DIR ? URL::Kind::kDirectory : URL::Kind::kFile));
  });
  if (number == 0) return items;
  failPOSIX(error, kFunction, __LINE__, number, "_IterateDirectory for %s returned %s",
            url.fileSystemRepresentation(), std::strerror(number));
  return std::nullopt;
}

// ---------------------------------------------------------------------------------------------------------------
// Removal

namespace {

bool _removefile_error_callback(RemovalState& state, const char* path, void* context) {
  constexpr char kFunction[] = "_removefile_error_callback";
  int number = ENOENT;
  if (!state.errorNumber(number)) {
    number = ENOENT;
    LogWrite(kLogError, kFunction,
             "removefile hit error for %s but we failed to get the error number", path);
  } else if (number != ENOENT) {
    LogWrite(kLogError, kFunction, "removefile hit error for %s : %s", path, std::strerror(number));
  }
  int* first = static_cast<int*>(context);
  if (first && *first == 0) *first = number;
  return true;
}

}  // namespace

bool PLFileManager::removeItemAtURL(const URL* url, Error* error) const {
  constexpr char kFunction[] = "-[PLFileManager removeItemAtURL:error:]";
  RecursiveRemove& remover = RecursiveRemove::current();
  const std::unique_ptr<RemovalState> state(remover.allocateState());
  if (!url) {
    return failPOSIX(error, kFunction, __LINE__, EFAULT,
                     "nil url passed to -removeItemAtURL:error:");
  }
  if (url->isDirectory()) state->expect(RemovalState::Expected::kDirectory);
  int firstError = 0;
  if (!state->setErrorCallback(&_removefile_error_callback)) {
    LogWrite(kLogError, kFunction,
             "removefile_state_set REMOVEFILE_STATE_ERROR_CALLBACK failed: %s",
             std::strerror(errno));
  }
  if (!state->setErrorContext(&firstError)) {
    LogWrite(kLogError, kFunction, "removefile_state_set REMOVEFILE_STATE_ERROR_CONTEXT failed: %s",
             std::strerror(errno));
  }
  if (remover.remove(url->fileSystemRepresentation(), *state) != 0 && errno != ENOENT) {
    const int number = errno;
    return failPOSIX(error, kFunction, __LINE__, number, "removefile of %@ failed: %s", *url,
                     std::strerror(number));
  }
  if (firstError == 0 || firstError == ENOENT) return true;
  return failPOSIX(error, kFunction, __LINE__, firstError, "removefile of %@ failed: %s", *url,
                   std::strerror(firstError));
}

}  // namespace pallion
