#pragma once

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "AppMigrator/app_migrator.h"
#include "AppMigrator/container_info.h"
#include "configuration/global_configuration.h"
#include "file_operations/file_manager.h"
#include "foundation/property_list.h"
#include "platform/icon.h"
#include "tests/helpers/fake_installer.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

// The last line of every run that failed.
inline constexpr const char* kRunFailedLine =
    "3 Returning migration failed. Please include the contents of /var/mobile/Library/Logs/Pallion "
    "and /var/Mobile/Library/Logs/Shiftwell in a bug report.";

// A device with an old layout, and an installer that answers as it is told.
class MigratorFixture : public testing::Test {
 public:
  static constexpr const char* kApplications = "private/var/mobile/Applications";
  static constexpr const char* kInstallMap =
      "private/var/mobile/Library/Caches/com.orlix.pallion.plist";
  static constexpr const char* kHarborMap = "private/var/mobile/Library/Pallion/SafeHarbor.plist";

  MigratorFixture() {
    setenv("TMPDIR", root.makeDirectory("tmp").c_str(), 1);
    root.makeDirectory("private/var/mobile/Library/Caches");
    root.makeDirectory("private/var/mobile/Library/Pallion");
  }
  ~MigratorFixture() override { unsetenv("TMPDIR"); }

  [[nodiscard]] std::string inApplications(const std::string& relative) const {
    return root / (std::string(kApplications) + "/" + relative);
  }
  // A file of a container, "<container>/...".
  void makeItem(const std::string& relative, const std::string& content = "") const {
    root.makeFile(std::string(kApplications) + "/" + relative, content);
  }
  void writeList(const std::string& relative, const Dictionary& content) const {
    root.makeFile(relative);
    ASSERT_EQ(0, writePropertyListFile(Value::dictionary(content), URL::fileURL(root / relative),
                                       PropertyListFormat::kBinary, Durability::kNotSynced));
  }
  void remove(const std::string& path) const {
    PLFileManager::defaultManager().removeItemAtURL(URL::fileURL(path), nullptr);
  }

  // Writes a bundle with an identifier (none when empty) into a container; the executable stands in
  // it, too.
  void makeBundle(const std::string& container, const std::string& name,
                  const std::string& identifier) const {
    const std::string bundle = container + "/" + name;
    makeItem(bundle + "/main", "code");
    Dictionary info = {{kQXBundleExecutable, Value::string("main")}};
    if (!identifier.empty()) info.set(kQXBundleIdentifier, Value::string(identifier));
    writeList(std::string(kApplications) + "/" + bundle + "/Info.plist", info);
  }
  // An application container "<container>/<Name>.app" with a file in Documents.
  void makeApplication(const std::string& container, const std::string& identifier) const {
    makeBundle(container, "Foo.app", identifier);
    makeItem(container + "/Documents/letter", identifier);
  }
  // The marker that a run writes for an application container.
  [[nodiscard]] Dictionary markerFor(const std::string& container, const std::string& bundleName,
                                     const std::string& identifier) const {
    return {{kContainerPathKey, Value::string(inApplications(container) + "/")},
            {kBundlePathKey, Value::string(inApplications(container) + "/" + bundleName + "/")},
            {kContainerTypeKey, Value::string("App")},
            {kBundleIdentifierKey, Value::string(identifier)}};
  }
  void makeMarker(const std::string& container, const Dictionary& marker) const {
    writeList(
        std::string(kApplications) + "/" + container + "/" + std::string(kMigrationMarkerName),
        marker);
  }
  void makeInstallMap(const Dictionary& groupContainers) const {
    writeList(kInstallMap, {{"GroupContainers", Value::dictionary(groupContainers)}});
  }
  // What the install map says of a group container at that path below the root.
  [[nodiscard]] Value groupAt(const std::string& path) const {
    return Value::dictionary({{"Container", Value::string(root / path)}});
  }

  // Runs a new migrator from `init` on. False when there is none, and the result of the run
  // otherwise.
  bool run() {
    PLAppMigrator migrator(configuration);
    return migrator.init() && migrator.performMigration();
  }

  // Lines of the host's log, "<level> <message>", without the name that all messages begin with and
  // with "$A" for the old containers directory and "$R" for the root; "Introspecting" and the like
  // (level 5) left out when `errorsOnly`.
  [[nodiscard]] std::vector<std::string> lines(bool errorsOnly = true) const {
    std::vector<std::string> out;
    for (std::string line : hostLog.lines) {
      if (errorsOnly && line.starts_with("5")) continue;
      constexpr std::string_view kName = "PLAppMigrator: ";
      EXPECT_EQ(line.find(kName), 2U) << line;
      line.erase(2, kName.size());
      for (const auto& [path, name] :
           {std::pair{inApplications(""), "$A/"}, std::pair{root.path(), "$R"}}) {
        for (size_t at = line.find(path); at != std::string::npos; at = line.find(path, at))
          line.replace(at, path.size(), name);
      }
      out.push_back(std::move(line));
    }
    return out;
  }
  // What was said of single items: the messages of the errors, a line each; but for icons.
  [[nodiscard]] std::string itemErrors() const {
    std::string all;
    for (const std::string& line : lines()) {
      if (line == kRunFailedLine || line.find(" icon ") != std::string::npos ||
          line.find("Not removing ") != std::string::npos) {
        continue;
      }
      all += (all.empty() ? "" : "\n") + line.substr(2);
    }
    return all;
  }
  [[nodiscard]] bool logged(const std::string& line) const {
    return std::ranges::count(lines(false), line) > 0;
  }
  [[nodiscard]] bool loggedBeginningWith(const std::string& prefix) const {
    const auto begins = [&](const std::string& line) { return line.starts_with(prefix); };
    return std::ranges::any_of(lines(false), begins);
  }

  TemporaryRoot root;
  PLGlobalConfiguration configuration{root.url()};
  RecordedHostLog hostLog;
  RecordedProductLog productLog;
  FakeInstaller installer{root};
};

// A renderer that always has a picture, for its lifetime.
class Painter : public IconRenderer {
 public:
  Painter() { replace(this); }
  ~Painter() override { replace(nullptr); }
  std::optional<Image> render(QXBundle&) override { return Image{1, 1, {1, 2, 3, 255}}; }
};

}  // namespace pallion::test
