#pragma once

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "platform/registry.h"
#include "tests/helpers/temporary_root.h"
#include "tests/helpers/tree_snapshot.h"

namespace pallion::test {

// What a bundle for tests holds.
struct BundleContent {
  std::string identifier;
  std::string version = "1.0";
  std::string executable = "Run";  // also made; none when empty
  std::vector<std::string> groups = {};
};

void makeBundle(const std::string& path, const BundleContent& content);

// A registry in a root of its own, and the staging directories that it is given.
class RegistryTest : public testing::Test {
 protected:
  using Strings = std::vector<std::string>;

  // <root>/<name> with the bundle Payload/<bundle>.
  std::string makeStaging(const std::string& name, const std::string& bundle,
                          const BundleContent& content) const;
  std::string makePlaceholder(const std::string& identifier) const;
  void makeBuiltIn(const std::string& identifier, const std::string& version,
                   const Strings& groups = {}) const;

  static Dictionary bundleOptions(const std::string& identifier);
  static Dictionary placeholderOptions(const std::string& identifier,
                                       const std::string& metadata = "");
  // The error name of the status dictionary; empty on success. A failure without one gives "?".
  std::string install(const std::string& path, const Dictionary& options);
  std::string installBundle(const std::string& staging, const std::string& identifier) {
    return install(staging, bundleOptions(identifier));
  }
  std::string installPlaceholder(const std::string& identifier, const std::string& metadata = "") {
    return install(makePlaceholder(identifier), placeholderOptions(identifier, metadata));
  }
  // Fails the test when there is none.
  [[nodiscard]] BundleProxy proxy(const std::string& identifier) const;

  void reopen() { registry_ = Registry::atRoot(root_.url()); }
  // Every item of the new layout, with the name of what owns it in place of each container's UUID.
  [[nodiscard]] TreeSnapshot newLayout() const;
  [[nodiscard]] std::string containers(const std::string& relative = "") const {
    return root_ / ("private/var/palliond/Containers" + relative);
  }
  [[nodiscard]] std::string library(const std::string& relative = "") const {
    return root_ / ("private/var/palliond/Library/Pallion" + relative);
  }

  TemporaryRoot root_;
  std::unique_ptr<Registry> registry_ = Registry::atRoot(root_.url());
};

// Sorted names in a directory.
std::vector<std::string> namesIn(const std::string& directory);

}  // namespace pallion::test
