#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/error.h"
#include "foundation/url.h"
#include "foundation/value.h"

// The platform application registry, as its clients see it: what is installed and where, and the
// installation of staged bundles.

namespace pallion {

// Keys and values of the install options. The bundle-identifier key is kQXBundleIdentifier
// (platform/bundle.h).
inline constexpr std::string_view kAppInstallTypeKey = "AppInstallType";
inline constexpr std::string_view kAppPackageTypeKey = "PackageType";
inline constexpr std::string_view kAppPackageTypeCustomer = "Customer";
inline constexpr std::string_view kAppPackageTypePlaceholder = "Placeholder";
inline constexpr std::string_view kAppBriscaMetadataKey = "BriscaMetadata";

// The error name under which the status dictionary of an installation says that a newer version is
// built into the system.
inline constexpr std::string_view kAppAlreadyInstalledError = "ApplicationAlreadyInstalled";

// An installation that has not been staged yet.
struct InstallationQuestion {
  std::string identifier;
  // A placeholder made of the first bundle, or the bundles themselves.
  bool placeholder = false;
  // Where the bundles stand now: directory and name of each that would be staged.
  std::vector<std::pair<std::string, std::string>> bundles;
  // The staging directory, for what stands in it already; empty when nothing will.
  std::string staging;
  // As what an installation before this one, which is still to come as well, will have installed
  // the identifier: "App" or "VPNBundle".
  std::optional<std::string> installedBefore;
};

// What an installation will come to, as far as it can be told before.
struct InstallationForecast {
  // The status dictionary that the block will hear; nothing when nothing speaks against it.
  std::optional<Dictionary> refusal;
  // Where the application's data container, its bundle container and its group containers stand, or
  // the directories in which they will be made; nothing when that can't be told.
  std::optional<URL> dataContainer;
  std::optional<URL> bundleContainers;
  struct Group {
    std::string identifier;
    URL place;
    bool exists = false;  // `place` is the container itself
  };
  std::vector<Group> groups;  // sorted by identifier
  // Of the plug-in beside the application that gets a record of its own; empty for none.
  std::string plugin;
};

// The record of one bundle at the time of the question. Immutable; shared between threads at will.
class BundleProxy {
 public:
  struct Record {
    std::string bundleIdentifier;
    std::string bundleType;  // "App" or "VPNBundle"
    std::optional<URL> bundleURL;
    std::optional<URL> bundleContainerURL;
    std::optional<URL> dataContainerURL;
    bool placeholder = false;
    bool builtIn = false;
    std::string version;
    // Group identifiers and their containers, sorted by identifier; nothing when the registry could
    // not tell.
    std::optional<std::vector<std::pair<std::string, URL>>> groupContainerURLs;
  };

  explicit BundleProxy(Record record) : record_(std::move(record)) {}

  // The record for an identifier, made on first request; nothing for an identifier that is no plain
  // name, and when the registry fails. Asks AppWorkspace::defaultWorkspace().
  static std::optional<BundleProxy> bundleProxyForIdentifier(const std::string& identifier);

  [[nodiscard]] const std::string& bundleIdentifier() const { return record_.bundleIdentifier; }
  [[nodiscard]] const std::string& bundleType() const { return record_.bundleType; }
  [[nodiscard]] const std::optional<URL>& bundleURL() const { return record_.bundleURL; }
  [[nodiscard]] const std::optional<URL>& bundleContainerURL() const {
    return record_.bundleContainerURL;
  }
  [[nodiscard]] const std::optional<URL>& dataContainerURL() const {
    return record_.dataContainerURL;
  }
  // Whether a directory stands at the bundle's URL; looked at with each question.
  [[nodiscard]] bool foundBackingBundle() const;
  [[nodiscard]] bool isPlaceholder() const { return record_.placeholder; }
  [[nodiscard]] bool isBuiltIn() const { return record_.builtIn; }
  [[nodiscard]] const std::string& version() const { return record_.version; }
  [[nodiscard]] const auto& groupContainerURLs() const { return record_.groupContainerURLs; }

 private:
  Record record_;
};

class AppWorkspace {
 public:
  // Hears the status dictionaries of an installation ("Error", "ErrorDescription", "ErrorDetail"),
  // on the calling thread and before the installation returns.
  using StatusBlock = std::function<void(const Dictionary& status)>;

  AppWorkspace() = default;
  AppWorkspace(const AppWorkspace&) = delete;
  AppWorkspace& operator=(const AppWorkspace&) = delete;
  virtual ~AppWorkspace() = default;

  // True when an application of that identifier is installed, as a placeholder, really, or built
  // in. False also when the registry can't be read.
  virtual bool applicationIsInstalled(const std::string& identifier) = 0;

  // Installs what stands at `url`: with AppPackageTypeCustomer a staging directory, with
  // AppPackageTypePlaceholder a placeholder bundle, whose files are written with
  // Durability::kOrdered at least. True on success; it is then durable. On failure false and the
  // record through `error`, where given.
  bool installApplication(const URL& url, const Dictionary& options, Error* error) {
    return installApplication(url, options, error, StatusBlock());
  }
  virtual bool installApplication(const URL& url, const Dictionary& options, Error* error,
                                  const StatusBlock& block) = 0;

  // What an installation will come to. Changes nothing. The answer for whoever can't tell: nothing
  // speaks against it.
  virtual InstallationForecast forecastInstallation(const InstallationQuestion& question);

  // What BundleProxy::bundleProxyForIdentifier asks.
  virtual std::optional<BundleProxy> proxyForIdentifier(const std::string& identifier) = 0;

  // The registry of this process; at first the one embedded at the root (platform/registry.h). The
  // seam: `replace` with null goes back to it, answers the one before.
  static AppWorkspace& defaultWorkspace();
  static AppWorkspace* replace(AppWorkspace* replacement);
};

}  // namespace pallion
