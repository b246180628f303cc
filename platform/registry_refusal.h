#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/error.h"
#include "foundation/value.h"

namespace pallion {

inline constexpr std::string_view kRegistryErrorDomain = "RegistryErrorDomain";

// Codes of the registry's error records; each has an error name for the status dictionaries.
enum class RegistryErrorCode {
  kDatabase = 1,           // the database can't be opened, read or written
  kOptions = 2,            // the options or arguments make no sense
  kPackageInspection = 3,  // what stands at the location is not what can be installed
  kMissingExecutable = 4,  // QXBundleExecutable names no regular file of the bundle
  kOlderThanBuiltIn = 5,   // a newer version is built into the system
  kIdentifierInUse = 6,    // another kind of bundle has the identifier
  kBuiltInUnreadable = 7,  // whether the identifier is that of a built-in application can't be told
  kInstallation = 8,       // taking the content over failed
  kReadOnly = 9,           // the registry was opened for reading alone
};

// Why an operation of the registry did not happen.
struct Refusal {
  RegistryErrorCode code = RegistryErrorCode::kDatabase;
  std::string description;  // names the item
  int errorNumber = 0;      // errno of the failed call; 0 when none failed
  std::string detail;       // the cause, where errorNumber doesn't tell it

  // A record with `errorNumber` as its underlying POSIX record.
  [[nodiscard]] Error error() const;
  // "Error" (the error name), "ErrorDescription", "ErrorDetail".
  [[nodiscard]] Dictionary status() const;
  // "description: cause", for logs.
  [[nodiscard]] std::string text() const;
};

// Nothing when the operation happened.
using Outcome = std::optional<Refusal>;

}  // namespace pallion
