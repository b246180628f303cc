#include "tests/AppMigrator/migrator_fixture.h"

#include <algorithm>
#include <cstdlib>

#include "AppMigrator/container_info.h"
#include "foundation/property_list.h"

namespace pallion::test {

MigratorFixture::MigratorFixture() : configuration(root.url()), installer(root) {
  setenv("TMPDIR", root.makeDirectory("tmp").c_str(), 1);
  root.makeDirectory("private/var/mobile/Library/Caches");
  root.makeDirectory("private/var/mobile/Library/Pallion");
}

MigratorFixture::~MigratorFixture() { unsetenv("TMPDIR"); }

std::string MigratorFixture::inApplications(const std::string& relative) const {
  return root / (std::string(kApplications) + "/" + relative);
}

void MigratorFixture::writeList(const std::string& relative, const Dictionary& content) const {
  root.makeFile(relative);
  ASSERT_EQ(0, writePropertyListFile(Value::dictionary(content), URL::fileURL(root / relative),
                                     PropertyListFormat::kBinary, Durability::kNotSynced));
}

void MigratorFixture::makeBundle(const std::string& container, const std::string& name,
                                 const std::string& identifier) const {
  const std::string bundle = std::string(kApplications) + "/" + container + "/" + name;
  root.makeFile(bundle + "/main", "code");
  Dictionary info = {{kQXBundleExecutable, Value::string("main")}};
  if (!identifier.empty()) info.set(kQXBundleIdentifier, Value::string(identifier));
  writeList(bundle + "/Info.plist", info);
}

void MigratorFixture::makeApplication(const std::string& container,
                                      const std::string& identifier) const {
  makeBundle(container, "Foo.app", identifier);
  root.makeFile(std::string(kApplications) + "/" + container + "/Documents/letter", identifier);
}

void MigratorFixture::makeMarker(const std::string& container, const Dictionary& marker) const {
  writeList(std::string(kApplications) + "/" + container + "/" + std::string(kMigrationMarkerName),
            marker);
}

Dictionary MigratorFixture::markerFor(const std::string& container, const std::string& bundleName,
                                      const std::string& identifier) const {
  return {{kContainerPathKey, Value::string(inApplications(container) + "/")},
          {kBundlePathKey, Value::string(inApplications(container) + "/" + bundleName + "/")},
          {kContainerTypeKey, Value::string("App")},
          {kBundleIdentifierKey, Value::string(identifier)}};
}

void MigratorFixture::makeInstallMap(const Dictionary& groupContainers) const {
  writeList(kInstallMap, {{"GroupContainers", Value::dictionary(groupContainers)}});
}

Value MigratorFixture::groupAt(const std::string& path) const {
  return Value::dictionary({{"Container", Value::string(root / path)}});
}

void MigratorFixture::makeHarborMap(const Dictionary& harbors) const {
  writeList(kHarborMap, harbors);
}

bool MigratorFixture::run() {
  PLAppMigrator migrator(configuration);
  return migrator.init() && migrator.performMigration();
}

std::vector<std::string> MigratorFixture::lines(bool errorsOnly) const {
  std::vector<std::string> out;
  for (std::string line : hostLog.lines) {
    if (errorsOnly && line.starts_with("5")) continue;
    for (const auto& [path, name] :
         {std::pair{inApplications(""), "$A/"}, std::pair{root.path(), "$R"}}) {
      for (size_t at = line.find(path); at != std::string::npos; at = line.find(path, at)) {
        line.replace(at, path.size(), name);
      }
    }
    out.push_back(std::move(line));
  }
  return out;
}

std::string MigratorFixture::itemErrors() const {
  constexpr std::string_view kBeginning = "3 PLAppMigrator: ";
  std::string all;
  for (const std::string& line : lines()) {
    if (line == kRunFailedLine || line.find(" icon ") != std::string::npos ||
        line.find("Not removing ") != std::string::npos) {
      continue;
    }
    all += (all.empty() ? "" : "\n") +
           line.substr(line.starts_with(kBeginning) ? kBeginning.size() : 0);
  }
  return all;
}

bool MigratorFixture::logged(const std::string& line) const {
  const std::vector<std::string> all = lines(false);
  return std::find(all.begin(), all.end(), line) != all.end();
}

bool MigratorFixture::loggedBeginningWith(const std::string& prefix) const {
  return std::ranges::any_of(lines(false),
                             [&](const std::string& line) { return line.starts_with(prefix); });
}

}  // namespace pallion::test
