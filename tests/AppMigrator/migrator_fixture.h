#pragma once

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "AppMigrator/app_migrator.h"
#include "configuration/global_configuration.h"
#include "platform/icon.h"
#include "tests/helpers/fake_installer.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

// A device with an old layout, and an installer that answers as it is told.
class MigratorFixture : public testing::Test {
 protected:
  static constexpr const char* kApplications = "private/var/mobile/Applications";
  static constexpr const char* kInstallMap =
      "private/var/mobile/Library/Caches/com.orlix.pallion.plist";
  static constexpr const char* kHarborMap = "private/var/mobile/Library/Pallion/SafeHarbor.plist";

  MigratorFixture();
  ~MigratorFixture() override;

  // Writes a bundle with an identifier (none when empty) into a container; the executable stands in
  // it, too.
  void makeBundle(const std::string& container, const std::string& name,
                  const std::string& identifier) const;
  // An application container "<container>/<Name>.app" with a file in Documents.
  void makeApplication(const std::string& container, const std::string& identifier) const;
  void makeMarker(const std::string& container, const Dictionary& marker) const;
  // The marker that a run writes for an application container.
  [[nodiscard]] Dictionary markerFor(const std::string& container, const std::string& bundleName,
                                     const std::string& identifier) const;
  void makeInstallMap(const Dictionary& groupContainers) const;
  // What the install map says of a group container at that path below the root.
  [[nodiscard]] Value groupAt(const std::string& path) const;
  void makeHarborMap(const Dictionary& harbors) const;
  void writeList(const std::string& relative, const Dictionary& content) const;

  [[nodiscard]] std::string inApplications(const std::string& relative) const;
  // Runs a new migrator from `init` on. False when there is none, and the result of the run
  // otherwise.
  bool run();

  // Lines of the host's log with "$A" for the old containers directory and "$R" for the root,
  // "Introspecting" and the like (level 5) left out when `errorsOnly`.
  [[nodiscard]] std::vector<std::string> lines(bool errorsOnly = true) const;
  // What was said of single items: the messages of the errors, a line each; but for icons.
  [[nodiscard]] std::string itemErrors() const;
  [[nodiscard]] bool logged(const std::string& line) const;
  [[nodiscard]] bool loggedBeginningWith(const std::string& prefix) const;

  TemporaryRoot root;
  PLGlobalConfiguration configuration;
  RecordedHostLog hostLog;
  RecordedProductLog productLog;
  FakeInstaller installer;
};

// A renderer that always has a picture, for its lifetime.
class Painter : public IconRenderer {
 public:
  Painter() { replace(this); }
  ~Painter() override { replace(nullptr); }
  std::optional<Image> render(QXBundle&) override { return Image{1, 1, {1, 2, 3, 255}}; }
};

// The last line of every run that failed.
inline constexpr const char* kRunFailedLine =
    "3 PLAppMigrator: Returning migration failed. Please include the contents of "
    "/var/mobile/Library/Logs/Pallion "
    "and /var/Mobile/Library/Logs/Shiftwell in a bug report.";

}  // namespace pallion::test
