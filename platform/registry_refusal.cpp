#include "platform/registry_refusal.h"

#include <cstring>

namespace pallion {

namespace {

std::string_view errorName(RegistryErrorCode code) {
  switch (code) {
    case RegistryErrorCode::kDatabase:
      return "RegistryUnavailable";
    case RegistryErrorCode::kOptions:
      return "InvalidInstallOptions";
    case RegistryErrorCode::kPackageInspection:
      return "PackageInspectionFailed";
    case RegistryErrorCode::kMissingExecutable:
      return "MissingBundleExecutable";
    case RegistryErrorCode::kOlderThanBuiltIn:
      return "ApplicationAlreadyInstalled";
    case RegistryErrorCode::kIdentifierInUse:
      return "IdentifierInUse";
    case RegistryErrorCode::kBuiltInUnreadable:
      return "BuiltInApplicationUnreadable";
    case RegistryErrorCode::kInstallation:
      return "InstallationFailed";
    case RegistryErrorCode::kReadOnly:
      return "RegistryReadOnly";
  }
  return "InstallationFailed";
}

std::string cause(const Refusal& refusal) {
  return refusal.detail.empty() && refusal.errorNumber != 0 ? strerrordesc_np(refusal.errorNumber)
                                                            : refusal.detail;
}

}  // namespace

Error Refusal::error() const {
  ErrorDetails details;
  details.set(kLocalizedDescriptionKey, Value::string(text()));
  if (errorNumber != 0) details.set(kUnderlyingErrorKey, Error(kPOSIXErrorDomain, errorNumber));
  return {kRegistryErrorDomain, static_cast<int64_t>(code), std::move(details)};
}

Dictionary Refusal::status() const {
  return {{"Error", Value::string(std::string(errorName(code)))},
          {"ErrorDescription", Value::string(description)},
          {"ErrorDetail", Value::string(cause(*this))}};
}

std::string Refusal::text() const {
  const std::string why = cause(*this);
  return why.empty() ? description : description + ": " + why;
}

}  // namespace pallion
