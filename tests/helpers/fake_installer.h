#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/app_workspace.h"
#include "platform/installer_service.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

// An installer that answers as it is told: stands in for registry and service while tests look at
// what the migrator asks of them. Installed things go below <root>/new.
class FakeInstaller : public AppWorkspace, public InstallerService {
 public:
  explicit FakeInstaller(const TemporaryRoot& root) : root_(root) {
    AppWorkspace::replace(this);
    InstallerService::replace(this);
  }
  ~FakeInstaller() override {
    AppWorkspace::replace(nullptr);
    InstallerService::replace(nullptr);
  }

  bool applicationIsInstalled(const std::string& identifier) override;
  using AppWorkspace::installApplication;
  bool installApplication(const URL& url, const Dictionary& options, Error* error,
                          const StatusBlock& block) override;
  std::optional<BundleProxy> proxyForIdentifier(const std::string& identifier) override;
  bool updateContainerDataProtection(const Dictionary& options) override;
  bool registerSafeHarbor(const std::string& path, const std::string& identifier, int containerType,
                          void* reserved) override;

  [[nodiscard]] std::string dataContainer(const std::string& identifier) const {
    return root_ / ("new/data/" + identifier);
  }

  // What it is told.
  std::vector<std::string> installed;  // identifiers known before
  bool refusePlaceholders = false;
  bool refuseBundles = false;
  std::vector<Dictionary> statuses;  // told during a bundle installation
  bool knowNoProxy = false;
  bool giveNoDataContainer = false;
  bool giveNoGroups = false;
  std::map<std::string, std::vector<std::string>> groups;  // by application
  bool failDataProtection = false;
  std::vector<std::string> refusedHarbors;  // identifiers

  // What it heard.
  struct Installation {
    URL url;
    Dictionary options;
    std::vector<std::string> entries;  // below the URL, relative paths, sorted
    Dictionary info;                   // of a placeholder
  };
  std::vector<Installation> installations;
  std::vector<std::string> harborCalls;  // "path identifier type"
  std::vector<Dictionary> protectionCalls;

 private:
  const TemporaryRoot& root_;
};

}  // namespace pallion::test
