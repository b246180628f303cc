#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>

#include "foundation/unique_descriptor.h"
#include "platform/embedded_registry.h"
#include "platform/product_log.h"
#include "platform/protection_class.h"

// What the registry tells of its records.

namespace pallion {

namespace {

constexpr const char* kProxy = "+[BundleProxy bundleProxyForIdentifier:]";
constexpr const char* kAllProxies = "-[Registry allProxies:]";
constexpr const char* kDataProtection = "PallionUpdateContainerDataProtectionForMigratorOnly";

// Class of the new layout's directories: readable once the device was unlocked for the first time.
constexpr int kDataContainerClass = 4;

URL directoryURL(const std::string& path) { return URL::fileURL(path, URL::Kind::kDirectory); }

// Gives a data container its class. 0 or an errno.
int protectDirectory(const std::string& path) {
  const UniqueDescriptor directory(
      open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) return errno;
  return ProtectionClass::current().set(directory.get(), kDataContainerClass) == 0 ? 0 : errno;
}

}  // namespace

std::optional<BundleProxy> EmbeddedRegistry::proxyForIdentifier(const std::string& identifier) {
  if (!isPlainName(identifier)) return std::nullopt;
  const std::lock_guard guard(mutex_);
  std::optional<BundleProxy> answer;
  if (const Outcome failed = proxy(identifier, answer)) {
    LogWrite(kLogError, kProxy, "%s", failed->text());
    return std::nullopt;
  }
  return answer;
}

Outcome EmbeddedRegistry::proxy(const std::string& identifier, std::optional<BundleProxy>& answer) {
  if (Outcome failed = open()) return failed;
  std::optional<BundleRow> row;
  const RegistryDatabase::OneState state(database_.get());
  if (database_ && !database_->findBundle(identifier, row)) return database_->failure();
  const BundleFacts* builtIn = nullptr;
  Outcome unreadable = builtIns_.find(identifier, builtIn);
  // With a bundle of its own the record is what it is.
  if (unreadable && !(row && row->hasBundle())) return unreadable;
  if (!row && access_ == Access::kReadWrite) {
    if (Outcome failed = makeRecord(identifier, builtIn, row.emplace())) return failed;
  }
  BundleProxy::Record record;
  if (Outcome failed = describe(row ? &*row : nullptr, identifier, builtIn, record)) return failed;
  answer.emplace(std::move(record));
  return std::nullopt;
}

// The first request of an identifier without a record.
Outcome EmbeddedRegistry::makeRecord(const std::string& identifier, const BundleFacts* builtIn,
                                     BundleRow& row) {
  row.identifier = identifier;
  row.type = builtIn ? "App" : "VPNBundle";
  RegistryChange making = change(kProxy);
  if (Outcome failed = making.begin()) return failed;
  if (Outcome failed = making.storeBundle(row)) return failed;
  if (builtIn) {
    if (Outcome failed = making.storeGroups(identifier, builtIn->groups)) return failed;
  }
  return making.commit();
}

// `row` may be null, and so may `builtIn`.
Outcome EmbeddedRegistry::describe(const BundleRow* row, const std::string& identifier,
                                   const BundleFacts* builtIn, BundleProxy::Record& record) {
  // Containers that are recorded but were lost are made again, for whoever writes.
  const auto containerURL = [this](Kind kind, const std::string& uuid) -> std::optional<URL> {
    const int failed = access_ == Access::kReadWrite ? containers_.ensure(kind, uuid) : 0;
    if (failed == 0) return directoryURL(containers_.place(kind, uuid));
    LogWrite(kLogError, kProxy, "Failed to make %s: %s", containers_.place(kind, uuid),
             strerrordesc_np(failed));
    return std::nullopt;
  };

  record.bundleIdentifier = identifier;
  record.builtIn = builtIn != nullptr;
  record.bundleType = builtIn ? "App" : "VPNBundle";
  std::string bundlePath;
  if (row && row->hasBundle()) {
    const std::string container = containers_.place(Kind::kBundle, row->container);
    bundlePath = container + "/" + row->bundle;
    record.bundleType = row->type;
    record.bundleContainerURL = directoryURL(container);
    record.placeholder = row->placeholder;
    record.version = row->version;
  } else if (builtIn) {
    bundlePath = builtIns_.directory() + "/" + builtIn->name;
    record.version = builtIn->version;
  }
  if (!bundlePath.empty()) record.bundleURL = directoryURL(bundlePath);
  record.groupContainerURLs.emplace();
  if (!row) return std::nullopt;

  record.dataContainerURL = containerURL(Kind::kData, row->data);
  std::vector<GroupRow> groups;
  if (!database_->groupsOfBundle(identifier, groups)) return database_->failure();
  for (const GroupRow& group : groups) {
    std::optional<URL> url = containerURL(Kind::kGroup, group.container);
    if (!url) {
      record.groupContainerURLs.reset();
      break;
    }
    record.groupContainerURLs->emplace_back(group.identifier, std::move(*url));
  }
  return std::nullopt;
}

std::optional<std::vector<BundleProxy>> EmbeddedRegistry::allProxies(Error* error) {
  const std::lock_guard guard(mutex_);
  std::vector<BundleProxy> proxies;
  const Outcome failed = everyProxy(proxies);
  if (!failed) return proxies;
  LogWrite(kLogError, kAllProxies, "%s", failed->text());
  if (error) *error = failed->error();
  return std::nullopt;
}

Outcome EmbeddedRegistry::everyProxy(std::vector<BundleProxy>& proxies) {
  if (Outcome failed = open()) return failed;
  const std::map<std::string, BundleFacts>* builtIns = nullptr;
  if (Outcome unreadable = builtIns_.all(builtIns)) return unreadable;
  std::vector<BundleRow> rows;
  const RegistryDatabase::OneState state(database_.get());
  if (database_ && !database_->allBundles(rows)) return database_->failure();
  std::map<std::string, std::pair<const BundleRow*, const BundleFacts*>> records;
  for (const BundleRow& row : rows) records[row.identifier].first = &row;
  for (const auto& [identifier, facts] : *builtIns) records[identifier].second = &facts;
  for (const auto& [identifier, record] : records) {
    BundleProxy::Record description;
    if (Outcome failed = describe(record.first, identifier, record.second, description))
      return failed;
    proxies.emplace_back(std::move(description));
  }
  return std::nullopt;
}

bool EmbeddedRegistry::updateContainerDataProtection(const Dictionary& options) {
  const std::lock_guard guard(mutex_);
  const bool builtInToo =
      options.get(kPLUpdateSystemAppDataContainerDataProtection).asBoolean() == true;
  const Outcome failed = setDataProtection(builtInToo);
  if (failed) LogWrite(kLogError, kDataProtection, "%s", failed->text());
  return !failed;
}

// Answers the first failure, after having done all the others.
Outcome EmbeddedRegistry::setDataProtection(bool builtInToo) {
  if (Outcome failed = openForWriting()) return failed;
  std::vector<BundleRow> rows;
  if (!database_->allBundles(rows)) return database_->failure();
  Outcome first;
  for (const BundleRow& row : rows) {
    Outcome failed;
    const BundleFacts* builtIn = nullptr;
    if (!builtInToo && (failed = builtIns_.find(row.identifier, builtIn))) {
      if (!first) first = std::move(failed);
      continue;
    }
    if (builtIn) continue;
    const std::string path = containers_.place(Kind::kData, row.data);
    int number = protectDirectory(path);
    if (number == ENOENT) {
      number = containers_.ensure(Kind::kData, row.data);
      if (number == 0) number = protectDirectory(path);
    }
    if (number != 0 && !first) {
      first = Refusal{RegistryErrorCode::kInstallation, "Setting the protection class of " + path,
                      number, ""};
    }
  }
  return first;
}

}  // namespace pallion
