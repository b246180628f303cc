#include <cerrno>
#include <sys/stat.h>

#include "file_operations/file_manager.h"
#include "programs/common/console.h"
#include "programs/common/exit_status.h"
#include "programs/palliontool/commands.h"
#include "programs/palliontool/failure.h"

namespace pallion::tool {

namespace {

const PLFileManager& files() { return PLFileManager::defaultManager(); }

int printNumber(const std::string& number) {
  return print(number + "\n") ? kExitSuccess : kExitFailure;
}

}  // namespace

int placeholder(const Options& options) {
  const URL bundle = directoryLocation(options.path);
  if (options.mark) {
    Error error;
    return files().markBundleAsPlaceholder(bundle, &error) ? kExitSuccess : fail(bundle, error);
  }
  if (files().bundleAtURLIsPlaceholder(bundle)) return kExitSuccess;
  // "No" needs no words; that there is no such bundle does.
  struct stat status {};
  const char* path = bundle.fileSystemRepresentation();
  if (lstat(path, &status) != 0) complain(options.path, errno);
  return kExitFailure;
}

int installType(const Options& options) {
  const URL bundle = directoryLocation(options.path);
  Error error;
  if (options.installType &&
      !files().setInstallType(Value::unsignedInteger(*options.installType), bundle, &error)) {
    return fail(bundle, error);
  }
  const Value type = files().installTypeForBundle(bundle, &error);
  return type ? printNumber(std::to_string(type.uint64Value())) : fail(bundle, error);
}

int protectionClass(const Options& options) {
  const URL item = location(options.path);
  Error error;
  if (options.protectionClass &&
      !files().setDataProtectionClassOfItemAtURL(item, *options.protectionClass, {}, &error)) {
    return fail(item, error);
  }
  int32_t number = 0;
  if (!files().dataProtectionClassOfItemAtURL(item, number, &error)) return fail(item, error);
  return printNumber(std::to_string(number));
}

}  // namespace pallion::tool
