#pragma once

#include <string>
#include <string_view>

#include "foundation/value.h"

// Client side of the installer service.

namespace pallion {

// Option of the data-protection update: boolean true includes the data containers of built-in
// applications.
inline constexpr std::string_view kPLUpdateSystemAppDataContainerDataProtection =
    "UpdateSystemAppDataContainerDataProtection";

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
