#include "tests/platform/registry_fixture.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "platform/bundle.h"

namespace pallion::test {

namespace {

std::string element(std::string_view key, const std::string& text) {
  return "<key>" + std::string(key) + "</key><string>" + text + "</string>";
}

}  // namespace

void makeBundle(const std::string& path, const BundleContent& content) {
  std::filesystem::create_directories(path);
  std::string entries;
  if (!content.identifier.empty()) entries += element(kQXBundleIdentifier, content.identifier);
  if (!content.version.empty()) entries += element(kQXBundleVersion, content.version);
  if (!content.executable.empty()) {
    entries += element(kQXBundleExecutable, content.executable);
    std::ofstream(path + "/" + content.executable) << "code of " + content.identifier;
  }
  entries += "<key>" + std::string(kQXApplicationGroups) + "</key><array>";
  for (const std::string& group : content.groups) entries += "<string>" + group + "</string>";
  std::ofstream(path + "/Info.plist") << "<plist><dict>" + entries + "</array></dict></plist>";
}

std::string RegistryTest::makeStaging(const std::string& name, const std::string& bundle,
                                      const BundleContent& content) const {
  makeBundle(root_ / (name + "/Payload/" + bundle), content);
  return root_ / name;
}

std::string RegistryTest::makePlaceholder(const std::string& identifier) const {
  const std::string path = root_ / ("tmp/" + identifier + ".app");
  std::filesystem::remove_all(path);
  makeBundle(path, {identifier, "1.0", ""});
  return path;
}

void RegistryTest::makeBuiltIn(const std::string& identifier, const std::string& version,
                               const Strings& groups) const {
  makeBundle(root_ / ("Applications/" + identifier + ".app"), {identifier, version, "Run", groups});
}

Dictionary RegistryTest::bundleOptions(const std::string& identifier) {
  return {{kAppInstallTypeKey, Value::unsignedInteger(6)},
          {kAppPackageTypeKey, Value::string(std::string(kAppPackageTypeCustomer))},
          {kQXBundleIdentifier, Value::string(identifier)}};
}

Dictionary RegistryTest::placeholderOptions(const std::string& identifier,
                                            const std::string& metadata) {
  Dictionary options = bundleOptions(identifier);
  options.set(kAppPackageTypeKey, Value::string(std::string(kAppPackageTypePlaceholder)));
  if (!metadata.empty()) options.set(kAppBriscaMetadataKey, Value::data(metadata));
  return options;
}

std::string RegistryTest::install(const std::string& path, const Dictionary& options) {
  Error error;
  std::string name = "?";
  const bool installed = registry_->installApplication(
      URL::fileURL(path, URL::Kind::kDirectory), options, &error, [&](const Dictionary& status) {
        if (const std::string* text = status.getString("Error")) name = *text;
        EXPECT_TRUE(status.getString("ErrorDescription") && status.getString("ErrorDetail"));
      });
  EXPECT_EQ(installed, !error) << error.localizedDescription();
  return installed ? "" : name;
}

BundleProxy RegistryTest::proxy(const std::string& identifier) const {
  std::optional<BundleProxy> found = registry_->proxyForIdentifier(identifier);
  EXPECT_TRUE(found) << identifier;
  return found ? *found : BundleProxy(BundleProxy::Record());
}

TreeSnapshot RegistryTest::newLayout() const {
  const std::unique_ptr<Registry> reader =
      Registry::atRoot(root_.url(), Registry::Access::kReadOnly);
  std::vector<std::pair<std::string, std::string>> names;
  const auto name = [&names](const std::optional<URL>& url, const std::string& owner) {
    if (url) names.emplace_back(url->lastPathComponent(), owner);
  };
  for (const BundleProxy& each : reader->allProxies(nullptr).value_or(std::vector<BundleProxy>())) {
    name(each.bundleContainerURL(), "bundle of " + each.bundleIdentifier());
    name(each.dataContainerURL(), "data of " + each.bundleIdentifier());
    for (const auto& [group, url] : *each.groupContainerURLs()) name(url, "group " + group);
  }
  for (const SafeHarborRecord& each :
       reader->allSafeHarbors(nullptr).value_or(std::vector<SafeHarborRecord>()))
    name(URL::fileURL(each.path), "harbor of " + each.identifier);
  TreeSnapshot named;
  for (const auto& [path, line] :
       snapshotTree(root_ / "private/var/palliond", {.ignoreTimes = true})) {
    if (path.find("registry.sqlite") != std::string::npos) continue;
    std::string readable = path;
    for (const auto& [uuid, owner] : names) {
      const size_t at = readable.find(uuid);
      if (at != std::string::npos) readable.replace(at, uuid.size(), owner);
    }
    named[readable] = line;
  }
  return named;
}

std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace pallion::test
