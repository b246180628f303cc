#include "platform/installer_service.h"

#include <atomic>

#include "platform/registry.h"

namespace pallion {

namespace {

std::atomic<InstallerService*> gReplacement{nullptr};

}  // namespace

std::optional<std::string> InstallerService::forecastContainerDataProtection() {
  return std::nullopt;
}

HarborForecast InstallerService::forecastSafeHarbor(const std::string& /*path*/,
                                                    const std::string& /*identifier*/) {
  return {};
}

InstallerService& InstallerService::current() {
  InstallerService* replacement = gReplacement.load();
  return replacement ? *replacement : defaultRegistry();
}

InstallerService* InstallerService::replace(InstallerService* replacement) {
  InstallerService* before = gReplacement.exchange(replacement);
  return before ? before : &defaultRegistry();
}

int PallionUpdateContainerDataProtectionForMigratorOnly(const Dictionary& options) {
  return InstallerService::current().updateContainerDataProtection(options) ? 1 : 0;
}

int PallionRegisterSafeHarborForContainerType(const std::string& path,
                                              const std::string& identifier, int containerType,
                                              void* reserved) {
  return InstallerService::current().registerSafeHarbor(path, identifier, containerType, reserved)
             ? 1
             : 0;
}

}  // namespace pallion
