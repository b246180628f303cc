#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>

#include "file_operations/error_makers.h"
#include "file_operations/file_manager.h"
#include "file_operations/path_strings.h"
#include "platform/make_path.h"
#include "platform/protection_class.h"

namespace pallion {

bool PLFileManager::createDirectoryAtURL(const URL& url, bool withIntermediateDirectories,
                                         mode_t mode, int32_t protectionClass, Error* error) const {
  constexpr char kFunction[] =
      "-[PLFileManager createDirectoryAtURL:withIntermediateDirectories:mode:class:error:]";
  const char* path = url.fileSystemRepresentation();
  if (withIntermediateDirectories) {
    const int number = MakePath::current().make(path, mode);
    if (number != 0 && number != EEXIST) {
      return failPOSIX(error, kFunction, __LINE__, number, "mkpath_np of %@ failed: %s", url.path(),
                       std::strerror(number));
    }
  } else if (mkdir(path, mode) != 0 && errno != EEXIST) {
    const int number = errno;
    return failPOSIX(error, kFunction, __LINE__, number, "mkdir of %@ failed: %s", url.path(),
                     std::strerror(number));
  }
  if (protectionClass == -1) return true;

  DIR* stream = opendir(path);
  if (!stream) {
    const int number = errno;
    return failPOSIX(error, kFunction, __LINE__, number, "opendir of %@ failed: %s", url.path(),
                     std::strerror(number));
  }
  bool set = true;
  if (ProtectionClass::current().set(dirfd(stream), protectionClass) != 0) {
    const int number = errno;
    set =
        failPOSIX(error, kFunction, __LINE__, number, "Failed to setclass(%d) on directory %@: %s",
                  int{protectionClass}, url.path(), std::strerror(number));
  }
  closedir(stream);
  return set;
}

std::optional<URL> PLFileManager::createTemporaryDirectoryInDirectoryURL(const URL& parent,
                                                                         Error* error) const {
  constexpr char kFunction[] = "-[PLFileManager createTemporaryDirectoryInDirectoryURL:error:]";
  if (error) *error = Error();
  const URL templateURL = parent.appending("temp.XXXXXX", URL::Kind::kDirectory);
  std::string path = templateURL.fileSystemRepresentation();
  if (mkdtemp(path.data())) {
    return URL::fileURL(PallionAdditions::stringWithFileSystemRepresentation(path.c_str()),
                        URL::Kind::kDirectory);
  }
  const Error underlying(kPOSIXErrorDomain, errno);
  ErrorDetails extra;
  extra.set(PLPathArgumentErrorKey, templateURL);
  Error record =
      _CreateAndLogError(kFunction, __LINE__, PLInstallerErrorDomain, kPLFileOperationFailed,
                         underlying, &extra, "Failed to create temp dir at path %s", path);
  if (error) *error = std::move(record);
  return std::nullopt;
}

}  // namespace pallion
