#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

#include "foundation/error.h"
#include "foundation/export.h"
#include "foundation/format.h"

// The one way to make an error record. All functions may be called from any thread.

namespace pallion {

// The installer's own family of error codes, "PLInstallerErrorDomain".
PL_EXPORT extern const std::string_view PLInstallerErrorDomain;

inline constexpr int64_t kPLFileOperationFailed = 4;   // the POSIX record is the underlying error
inline constexpr int64_t kPLStoreMetadataFailed = 24;  // copying or moving a store-metadata item
inline constexpr int64_t kPLInvalidSymbolicLink = 70;  // met while ownership is standardised

// Names of details.
PL_EXPORT extern const std::string_view
    PLFunctionNameErrorKey;  // "FunctionName": full name of the maker, a string
PL_EXPORT extern const std::string_view
    PLSourceFileLineErrorKey;  // "SourceFileLine": source line, an integer
PL_EXPORT extern const std::string_view
    PLPathArgumentErrorKey;  // "PathArgument": location that failed
PL_EXPORT extern const std::string_view
    PLLibPLSErrorNumberKey;  // "LibPLSErrorNumber": a number, for other components
inline constexpr std::string_view kLegacyErrorStringKey =
    "LegacyErrorString";  // identifier in the older scheme

// Makes a record with exactly three details: the description, the function and the line. Logs
// nothing. `text` must have been checked against the arguments (FormatString).
PL_EXPORT Error _CreateErrorV(const char* function, int line, std::string_view domain, int64_t code,
                              const char* text, std::span<const FormatArgument> arguments);

// Makes a record from the extra details (null for none), to which it adds the description, the
// underlying error (none for none), the function and the line, replacing details of the same names.
// With a text it logs at level 3 under `function`
// "<line>: <description>", followed by the underlying error in parentheses; without one (null)
// there is neither a description nor a line in the log.
PL_EXPORT Error _CreateAndLogErrorV(const char* function, int line, std::string_view domain,
                                    int64_t code, const Error& underlying,
                                    const ErrorDetails* extra, const char* text,
                                    std::span<const FormatArgument> arguments);

template <class... Args>
Error _CreateError(const char* function, int line, std::string_view domain, int64_t code,
                   FormatString<std::type_identity_t<Args>...> text, const Args&... args) {
  return withArguments(
      [&](std::span<const FormatArgument> list) {
        return _CreateErrorV(function, line, domain, code, text.text(), list);
      },
      args...);
}

template <class... Args>
Error _CreateAndLogError(const char* function, int line, std::string_view domain, int64_t code,
                         const Error& underlying, const ErrorDetails* extra,
                         FormatString<std::type_identity_t<Args>...> text, const Args&... args) {
  return withArguments(
      [&](std::span<const FormatArgument> list) {
        return _CreateAndLogErrorV(function, line, domain, code, underlying, extra, text.text(),
                                   list);
      },
      args...);
}

// Without a text.
inline Error _CreateAndLogError(const char* function, int line, std::string_view domain,
                                int64_t code, const Error& underlying, const ErrorDetails* extra,
                                std::nullptr_t) {
  return _CreateAndLogErrorV(function, line, domain, code, underlying, extra, nullptr, {});
}

// Fills `error`, where given, with a record of the POSIX domain; answers false, for operations to
// return. Without `error` nothing is formatted.
template <class... Args>
bool failPOSIX(Error* error, const char* function, int line, int number,
               FormatString<std::type_identity_t<Args>...> text, const Args&... args) {
  if (error)
    *error = _CreateError<Args...>(function, line, kPOSIXErrorDomain, number, text, args...);
  return false;
}

}  // namespace pallion
