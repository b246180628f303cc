#include "AppMigrator/install_options.h"

#include "platform/app_workspace.h"
#include "platform/bundle.h"

namespace pallion {

namespace {

// The registry's number for an installation by the migrator.
constexpr uint64_t kInstallTypeMigrator = 6;

Dictionary commonOptions(const std::string& identifier, std::string_view packageType) {
  return {{kAppInstallTypeKey, Value::unsignedInteger(kInstallTypeMigrator)},
          {kAppPackageTypeKey, Value::string(std::string(packageType))},
          {"SkipBlacklist", Value::boolean(true)},
          {kQXBundleIdentifier, Value::string(identifier)}};
}

}  // namespace

Dictionary bundleInstallOptions(const std::string& identifier) {
  Dictionary options = commonOptions(identifier, kAppPackageTypeCustomer);
  options.set("VerifyForMigrator", Value::boolean(true));
  return options;
}

Dictionary placeholderInstallOptions(const std::string& identifier,
                                     std::optional<std::string> metadata) {
  Dictionary options = commonOptions(identifier, kAppPackageTypePlaceholder);
  if (metadata) options.set(kAppBriscaMetadataKey, Value::data(std::move(*metadata)));
  return options;
}

}  // namespace pallion
