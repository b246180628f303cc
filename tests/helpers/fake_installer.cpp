#include "tests/helpers/fake_installer.h"

#include <algorithm>
#include <filesystem>

#include "foundation/property_list.h"
#include "platform/bundle.h"

namespace pallion::test {

namespace fs = std::filesystem;

namespace {

bool contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

}  // namespace

bool FakeInstaller::applicationIsInstalled(const std::string& identifier) {
  return contains(installed, identifier);
}

bool FakeInstaller::installApplication(const URL& url, const Dictionary& options, Error* error,
                                       const StatusBlock& block) {
  Installation heard{url, options, {}, {}};
  for (const auto& entry : fs::recursive_directory_iterator(url.path())) {
    heard.entries.push_back(fs::relative(entry.path(), url.path()).string());
  }
  std::sort(heard.entries.begin(), heard.entries.end());
  const bool isPlaceholder = *options.getString(kAppPackageTypeKey) == kAppPackageTypePlaceholder;
  if (isPlaceholder) {
    heard.info =
        readDictionaryFile(url.appending("Info.plist", URL::Kind::kFile)).value_or(Dictionary());
  }
  installations.push_back(std::move(heard));
  if (!isPlaceholder && block) {
    for (const Dictionary& status : statuses) block(status);
  }
  if (isPlaceholder ? refusePlaceholders : refuseBundles) {
    if (error) {
      ErrorDetails details;
      details.set(kLocalizedDescriptionKey, Value::string("refused"));
      *error = Error("FakeDomain", 7, std::move(details));
    }
    return false;
  }
  const std::string identifier = *options.getString(kQXBundleIdentifier);
  if (!isPlaceholder) {
    fs::create_directories(root_ / "new/bundle");
    fs::remove_all(root_ / ("new/bundle/" + identifier));
    fs::rename(url.fileSystemRepresentation(), root_ / ("new/bundle/" + identifier));
  }
  installed.push_back(identifier);
  return true;
}

std::optional<BundleProxy> FakeInstaller::proxyForIdentifier(const std::string& identifier) {
  if (knowNoProxy) return std::nullopt;
  BundleProxy::Record record;
  record.bundleIdentifier = identifier;
  record.bundleType = "App";
  if (!giveNoDataContainer) {
    fs::create_directories(dataContainer(identifier) + "/Documents");
    record.dataContainerURL = URL::fileURL(dataContainer(identifier), URL::Kind::kDirectory);
  }
  if (!giveNoGroups) {
    record.groupContainerURLs.emplace();
    for (const std::string& group : groups[identifier]) {
      const std::string path = root_ / ("new/group/" + group);
      fs::create_directories(path);
      record.groupContainerURLs->emplace_back(group, URL::fileURL(path, URL::Kind::kDirectory));
    }
  }
  return BundleProxy(std::move(record));
}

bool FakeInstaller::updateContainerDataProtection(const Dictionary& options) {
  protectionCalls.push_back(options);
  return !failDataProtection;
}

bool FakeInstaller::registerSafeHarbor(const std::string& path, const std::string& identifier,
                                       int containerType, void* reserved) {
  harborCalls.push_back(path + " " + identifier + " " + std::to_string(containerType) +
                        (reserved ? " reserved" : ""));
  return !contains(refusedHarbors, identifier);
}

}  // namespace pallion::test
