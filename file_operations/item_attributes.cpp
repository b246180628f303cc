#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "file_operations/error_makers.h"
#include "file_operations/file_manager.h"
#include "platform/extended_attributes.h"
#include "platform/protection_class.h"

namespace pallion {

namespace {

// A descriptor of the item itself, for its attributes. -1 with the record made.
int openItem(const URL& url, const char* function, Error* error) {
  const int descriptor =
      open(url.fileSystemRepresentation(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) {
    const int number = errno;
    failPOSIX(error, function, __LINE__, number, "Failed to open %s : %s",
              url.fileSystemRepresentation(), std::strerror(number));
  }
  return descriptor;
}

bool readClass(int descriptor, const URL& url, int32_t& protectionClass, const char* function,
               Error* error) {
  const int current = ProtectionClass::current().get(descriptor);
  if (current < 0) {
    const int number = errno;
    return failPOSIX(error, function, __LINE__, number, "Failed to getclass of file %s: %s",
                     url.fileSystemRepresentation(), std::strerror(number));
  }
  protectionClass = current;
  return true;
}

bool setClass(int descriptor, const URL& url, int32_t protectionClass,
              const PLFileManager::ClassPredicate& predicate, const char* function, Error* error) {
  if (predicate) {
    int32_t current = 0;
    if (!readClass(descriptor, url, current, function, error)) return false;
    if (!predicate(current)) return true;
  }
  if (ProtectionClass::current().set(descriptor, protectionClass) == 0) return true;
  const int number = errno;
  return failPOSIX(error, function, __LINE__, number, "Failed to setclass(%d) on file %s: %s",
                   int{protectionClass}, url.fileSystemRepresentation(), std::strerror(number));
}

}  // namespace

bool PLFileManager::dataProtectionClassOfItemAtURL(const URL& url, int32_t& protectionClass,
                                                   Error* error) const {
  constexpr char kFunction[] = "-[PLFileManager dataProtectionClassOfItemAtURL:class:error:]";
  const int descriptor = openItem(url, kFunction, error);
  if (descriptor < 0) return false;
  const bool read = readClass(descriptor, url, protectionClass, kFunction, error);
  close(descriptor);
  return read;
}

bool PLFileManager::setDataProtectionClassOfItemAtURL(const URL& url, int32_t protectionClass,
                                                      const ClassPredicate& predicate,
                                                      Error* error) const {
  constexpr char kFunction[] =
      "-[PLFileManager setDataProtectionClassOfItemAtURL:toClass:ifPredicate:error:]";
  const int descriptor = openItem(url, kFunction, error);
  if (descriptor < 0) return false;
  const bool set = setClass(descriptor, url, protectionClass, predicate, kFunction, error);
  close(descriptor);
  return set;
}

bool PLFileManager::markBundleAsPlaceholder(const URL& bundle, Error* error) const {
  constexpr char kFunction[] = "-[PLFileManager markBundleAsPlaceholder:withError:]";
  const uint32_t mark = 1;
  const char* path = bundle.fileSystemRepresentation();
  if (ExtendedAttributes::current().set(path, kPlaceholderAttribute, &mark, sizeof mark) == 0)
    return true;
  const int number = errno;
  const Error record =
      _CreateAndLogError(kFunction, __LINE__, PLInstallerErrorDomain, kPLFileOperationFailed,
                         Error(kPOSIXErrorDomain, number), nullptr,
                         "Could't set placeholder EA on \"%s\": %s", path, std::strerror(number));
  if (error) *error = record;
  return false;
}

bool PLFileManager::bundleAtURLIsPlaceholder(const URL& bundle) const {
  uint32_t mark = 0;
  return ExtendedAttributes::current().get(bundle.fileSystemRepresentation(), kPlaceholderAttribute,
                                           &mark, sizeof mark) == ssize_t{sizeof mark};
}

bool PLFileManager::setInstallType(const Value& installType, const URL& bundle,
                                   Error* error) const {
  constexpr char kFunction[] = "-[PLFileManager setInstallType:onBundle:error:]";
  const uint64_t number = installType.uint64Value();
  const char* path = bundle.fileSystemRepresentation();
  if (ExtendedAttributes::current().set(path, kInstallTypeAttribute, &number, sizeof number) == 0)
    return true;
  const int failure = errno;
  const Error record =
      _CreateAndLogError(kFunction, __LINE__, PLInstallerErrorDomain, kPLFileOperationFailed,
                         Error(kPOSIXErrorDomain, failure), nullptr,
                         "Could't set installType EA on \"%s\": %s", path, std::strerror(failure));
  if (error) *error = record;
  return false;
}

Value PLFileManager::installTypeForBundle(const URL& bundle, Error* error) const {
  constexpr char kFunction[] = "-[PLFileManager installTypeForBundle:error:]";
  uint64_t number = 0;
  const char* path = bundle.fileSystemRepresentation();
  const ssize_t size =
      ExtendedAttributes::current().get(path, kInstallTypeAttribute, &number, sizeof number);
  if (size == ssize_t{sizeof number}) return Value::unsignedInteger(number);
  Error record;
  if (size < 0) {
    const int failure = errno;
    if (failure == kNoAttribute) return Value::unsignedInteger(0);
    record = _CreateAndLogError(kFunction, __LINE__, PLInstallerErrorDomain, kPLFileOperationFailed,
                                Error(kPOSIXErrorDomain, failure), nullptr,
                                "Couldn't get installType EA from \"%s\": %s", path,
                                std::strerror(failure));
  } else {
    record = _CreateAndLogError(
        kFunction, __LINE__, PLInstallerErrorDomain, kPLFileOperationFailed, Error(), nullptr,
        "getxattr for installType EA on %s returned %zd (expected %zu)", path, size, sizeof number);
  }
  if (error) *error = record;
  return {};
}

}  // namespace pallion
