#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "foundation/url.h"
#include "foundation/value.h"

namespace pallion {

// The family of error records whose codes are errno values.
inline constexpr std::string_view kPOSIXErrorDomain = "POSIX";
// Keys of the two details that every family shares.
inline constexpr std::string_view kLocalizedDescriptionKey = "LocalizedDescription";
inline constexpr std::string_view kUnderlyingErrorKey = "UnderlyingError";

class ErrorDetails;

// A record of one failure: domain, code and details. A shared handle to an immutable object; a
// default-constructed one is none. Any thread may use its own handle.
class Error {
 public:
  Error() = default;
  Error(std::string_view domain, int64_t code);
  Error(std::string_view domain, int64_t code, ErrorDetails details);

  explicit operator bool() const { return record_ != nullptr; }
  // Of none: empty, 0 and no details.
  [[nodiscard]] const std::string& domain() const;
  [[nodiscard]] int64_t code() const;
  [[nodiscard]] const ErrorDetails& details() const;
  // The text under kLocalizedDescriptionKey, or empty.
  [[nodiscard]] std::string_view localizedDescription() const;
  // The record under kUnderlyingErrorKey, or none.
  [[nodiscard]] Error underlyingError() const;
  [[nodiscard]] bool isPOSIX(int code) const;

 private:
  struct Record;
  std::shared_ptr<const Record> record_;
};

// The details of a record: names to values, locations or further records, in the order in which
// they were set.
class ErrorDetails {
 public:
  using Detail = std::variant<Value, URL, Error>;
  using Entry = std::pair<std::string, Detail>;

  // Stores a detail; one of the same name is replaced in its place.
  void set(std::string_view name, Detail detail);
  // The detail of that name, or null.
  [[nodiscard]] const Detail* find(std::string_view name) const;
  [[nodiscard]] const std::vector<Entry>& entries() const { return entries_; }

 private:
  std::vector<Entry> entries_;
};

// "%@": domain, code, description and, in parentheses, the underlying record: "POSIX 5: cause
// (POSIX 28)".
void appendDescription(std::string& out, const Error& error);
// "%@": "{name = detail; name = detail}".
void appendDescription(std::string& out, const ErrorDetails& details);

}  // namespace pallion
