#include "file_operations/error_makers.h"

#include "platform/product_log.h"

namespace pallion {

const std::string_view PLInstallerErrorDomain = "PLInstallerErrorDomain";
const std::string_view PLFunctionNameErrorKey = "FunctionName";
const std::string_view PLSourceFileLineErrorKey = "SourceFileLine";
const std::string_view PLPathArgumentErrorKey = "PathArgument";
const std::string_view PLLibPLSErrorNumberKey = "LibPLSErrorNumber";

namespace {

void setMaker(ErrorDetails& details, const char* function, int line) {
  details.set(PLFunctionNameErrorKey, Value::string(function));
  details.set(PLSourceFileLineErrorKey, Value::integer(line));
}

}  // namespace

Error _CreateErrorV(const char* function, int line, std::string_view domain, int64_t code,
                    const char* text, std::span<const FormatArgument> arguments) {
  ErrorDetails details;
  details.set(kLocalizedDescriptionKey, Value::string(formatArguments(text, arguments)));
  setMaker(details, function, line);
  return {domain, code, std::move(details)};
}

Error _CreateAndLogErrorV(const char* function, int line, std::string_view domain, int64_t code,
                          const Error& underlying, const ErrorDetails* extra, const char* text,
                          std::span<const FormatArgument> arguments) {
  ErrorDetails details = extra ? *extra : ErrorDetails();
  if (text) {
    std::string message = formatArguments(text, arguments);
    if (underlying) {
      LogWrite(kLogError, function, "%d: %@ (%@)", line, message, underlying);
    } else {
      LogWrite(kLogError, function, "%d: %@", line, message);
    }
    details.set(kLocalizedDescriptionKey, Value::string(std::move(message)));
  }
  if (underlying) details.set(kUnderlyingErrorKey, underlying);
  setMaker(details, function, line);
  return {domain, code, std::move(details)};
}

}  // namespace pallion
