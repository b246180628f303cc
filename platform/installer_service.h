#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/url.h"
#include "foundation/value.h"

// Client side of the installer service.

namespace pallion {

// Option of the data-protection update: boolean true includes the data containers of built-in
// applications.
inline constexpr std::string_view kPLUpdateSystemAppDataContainerDataProtection =
    "UpdateSystemAppDataContainerDataProtection";

// What the registration of a safe harbor will come to.
struct HarborForecast {
  std::optional<std::string> refusal;  // why it will be refused; nothing when it will not
  bool taken = false;                  // by a former registration: there is nothing to move
  std::optional<URL> store;  // where the harbors stand or will; nothing when it can't be told
};

class InstallerService {
 public:
  InstallerService() = default;
  InstallerService(const InstallerService&) = delete;
  InstallerService& operator=(const InstallerService&) = delete;
  virtual ~InstallerService() = default;

  // Sets the protection class of every data container. True on success.
  virtual bool updateContainerDataProtection(const Dictionary& options) = 0;
  // Takes the directory at `path` over as the safe harbor of an application. True on success.
  // `reserved` is not used.
  virtual bool registerSafeHarbor(const std::string& path, const std::string& identifier,
                                  int containerType, void* reserved) = 0;

  // What the two will come to, as far as it can be told before: why they will fail. They change
  // nothing. The answer for whoever can't tell: nothing speaks against it.
  virtual std::optional<std::string> forecastContainerDataProtection();
  virtual HarborForecast forecastSafeHarbor(const std::string& path, const std::string& identifier);

  // The seam: at first the embedded service at the root. `replace` with null goes back to it,
  // answers the one before.
  static InstallerService& current();
  static InstallerService* replace(InstallerService* replacement);
};

// Non-zero on success, zero on failure.
int PallionUpdateContainerDataProtectionForMigratorOnly(const Dictionary& options);
int PallionRegisterSafeHarborForContainerType(const std::string& path,
                                              const std::string& identifier, int containerType,
                                              void* reserved);

}  // namespace pallion
