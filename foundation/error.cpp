#include "foundation/error.h"

namespace pallion {

struct Error::Record {
  std::string domain;
  int64_t code = 0;
  ErrorDetails details;
};

Error::Error(std::string_view domain, int64_t code) : Error(domain, code, ErrorDetails()) {}

Error::Error(std::string_view domain, int64_t code, ErrorDetails details)
    : record_(
          std::make_shared<const Record>(Record{std::string(domain), code, std::move(details)})) {}

const std::string& Error::domain() const {
  static const std::string kEmpty;
  return record_ ? record_->domain : kEmpty;
}

int64_t Error::code() const { return record_ ? record_->code : 0; }

const ErrorDetails& Error::details() const {
  static const ErrorDetails kEmpty;
  return record_ ? record_->details : kEmpty;
}

std::string_view Error::localizedDescription() const {
  const ErrorDetails::Detail* detail = details().find(kLocalizedDescriptionKey);
  const Value* value = detail ? std::get_if<Value>(detail) : nullptr;
  const std::string* text = value ? value->asString() : nullptr;
  return text ? std::string_view(*text) : std::string_view();
}

Error Error::underlyingError() const {
  const ErrorDetails::Detail* detail = details().find(kUnderlyingErrorKey);
  const Error* error = detail ? std::get_if<Error>(detail) : nullptr;
  return error ? *error : Error();
}

bool Error::isPOSIX(int code) const {
  return record_ && record_->code == code && record_->domain == kPOSIXErrorDomain;
}

void ErrorDetails::set(std::string_view name, Detail detail) {
  for (Entry& entry : entries_) {
    if (entry.first == name) {
      entry.second = std::move(detail);
      return;
    }
  }
  entries_.emplace_back(name, std::move(detail));
}

const ErrorDetails::Detail* ErrorDetails::find(std::string_view name) const {
  for (const Entry& entry : entries_) {
    if (entry.first == name) return &entry.second;
  }
  return nullptr;
}

void appendDescription(std::string& out, const Error& error) {
  if (!error) {
    out += "(null)";
    return;
  }
  out += error.domain();
  out += ' ';
  out += std::to_string(error.code());
  if (const std::string_view text = error.localizedDescription(); !text.empty()) {
    out += ": ";
    out += text;
  }
  if (const Error underlying = error.underlyingError()) {
    out += " (";
    appendDescription(out, underlying);
    out += ')';
  }
}

void appendDescription(std::string& out, const ErrorDetails& details) {
  out += '{';
  std::string_view separator;
  for (const auto& [name, detail] : details.entries()) {
    out += separator;
    out += name;
    out += " = ";
    std::visit([&out](const auto& held) { appendDescription(out, held); }, detail);
    separator = "; ";
  }
  out += '}';
}

}  // namespace pallion
