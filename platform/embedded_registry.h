#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/built_in_applications.h"
#include "platform/registry.h"
#include "platform/registry_change.h"
#include "platform/registry_containers.h"
#include "platform/registry_database.h"

namespace pallion {

struct StagedPackage;

// The registry behind Registry::atRoot. Public operations take the lock and open the registry;
// private ones run with both.
class EmbeddedRegistry final : public Registry {
 public:
  EmbeddedRegistry(const URL& root, Access access);
  EmbeddedRegistry(const EmbeddedRegistry&) = delete;
  EmbeddedRegistry& operator=(const EmbeddedRegistry&) = delete;
  ~EmbeddedRegistry() override;

  bool applicationIsInstalled(const std::string& identifier) override;
  using AppWorkspace::installApplication;
  bool installApplication(const URL& url, const Dictionary& options, Error* error,
                          const StatusBlock& block) override;
  std::optional<BundleProxy> proxyForIdentifier(const std::string& identifier) override;
  bool updateContainerDataProtection(const Dictionary& options) override;
  bool registerSafeHarbor(const std::string& path, const std::string& identifier, int containerType,
                          void* reserved) override;
  InstallationForecast forecastInstallation(const InstallationQuestion& question) override;
  HarborForecast forecastSafeHarbor(const std::string& path,
                                    const std::string& identifier) override;
  std::optional<std::string> forecastContainerDataProtection() override;
  std::optional<std::vector<BundleProxy>> allProxies(Error* error) override;
  std::optional<std::vector<SafeHarborRecord>> allSafeHarbors(Error* error) override;
  void close() override;

 private:
  using Kind = RegistryContainers::Kind;

  // Opening. After `open` of a registry that was never written and is only read there is no
  // database.
  Outcome open();
  Outcome openForWriting();
  Outcome openDatabase();
  Outcome lockAgainstWriters();
  void closeLocked();

  // What an interruption left, in the order in which it is dealt with.
  Outcome recover();
  Outcome recoverIncoming(bool& settled);
  Outcome completePackage(const std::string& uuid);
  Outcome recoverTrash();
  Outcome recoverHarbors();

  // Installation.
  Outcome install(const URL& url, const Dictionary& options);
  Outcome installPackage(const std::string& staging, const std::string& identifier,
                         uint64_t installType);
  Outcome installPlaceholder(const URL& url, const std::string& identifier,
                             const Dictionary& options);
  Outcome takeLateMetadata(const std::string& staging, const std::string& container);
  [[nodiscard]] int replaceItemAcrossVolumes(const std::string& from, const std::string& to) const;
  Outcome recordPackage(const StagedPackage& package, const std::string& uuid,
                        const char* function);
  Outcome recordBundle(RegistryChange& change, const BundleFacts& facts, const std::string& uuid);

  // What an installation refuses, apart from failures of the file system. They only look.
  static Outcome judgeIdentifier(const BundleFacts& facts, const std::string& identifier,
                                 const std::string& bundlePath);
  static Outcome judgePackage(const StagedPackage& package, const std::string& identifier,
                              const std::string& staging, const BundleRow* row,
                              const BundleFacts* builtIn);
  // A truncated or lost database would pass for a new one, and the containers would be forgotten.
  [[nodiscard]] Outcome judgeEmptyDatabase() const;
  Outcome judgeHarbor(const std::string& source, const std::string& identifier, bool& taken);

  // Forecasts.
  Outcome openForForecast();
  Outcome forecast(const InstallationQuestion& question, InstallationForecast& answer);
  Outcome forecastPackage(const InstallationQuestion& question, std::optional<BundleRow> row,
                          InstallationForecast& answer);
  Outcome forecastGroups(const std::vector<std::string>& groups, InstallationForecast& answer);
  Outcome readInterruptedPackages();

  Outcome isInstalled(const std::string& identifier, bool& installed);

  // Records.
  Outcome proxy(const std::string& identifier, std::optional<BundleProxy>& proxy);
  Outcome makeRecord(const std::string& identifier, const BundleFacts* builtIn, BundleRow& row);
  Outcome describe(const BundleRow* row, const std::string& identifier, const BundleFacts* builtIn,
                   BundleProxy::Record& record);
  Outcome everyProxy(std::vector<BundleProxy>& proxies);
  Outcome setDataProtection(bool builtInToo);

  // Safe harbors.
  Outcome takeHarbor(const std::string& source, const std::string& identifier, int containerType);
  Outcome recordHarbor(const HarborRow& row);
  Outcome forgetPendingHarbor(const std::string& uuid);
  bool addMovedHarbors(std::vector<HarborRow>& rows);

  [[nodiscard]] RegistryChange change(const char* function) {
    return {*database_, containers_, removedTrash_, function};
  }

  std::mutex mutex_;
  const Access access_;
  RegistryContainers containers_;
  BuiltInApplications builtIns_;
  std::unique_ptr<RegistryDatabase> database_;
  int lock_ = -1;  // open while this process may write
  std::vector<std::string> removedTrash_;
  std::optional<Outcome> openedForForecast_;
  // Staging directories that were taken over but not recorded; only a forecast reads them.
  std::optional<std::vector<BundleFacts>> interruptedBundles_;
};

Outcome judgeHarborIdentifier(const std::string& path, const std::string& identifier);

}  // namespace pallion
