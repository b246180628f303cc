#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry_refusal.h"

namespace pallion {

class Dictionary;

// What the registry takes from a bundle's information property list.
struct BundleFacts {
  std::string name;                       // of the bundle directory
  std::string identifier;                 // empty when there is none that is a plain name
  std::string version;                    // QXBundleVersion; empty when there is none
  std::vector<std::string> groups;        // QXApplicationGroups, the plain names among them
  std::optional<std::string> executable;  // QXBundleExecutable; empty when it is no plain name
};
// Reads them. Fails with kPackageInspection when there is an information property list that can't
// be read; one that is missing or damaged leaves everything but the name empty.
Outcome readBundleFacts(const std::string& directory, const std::string& name, BundleFacts& facts);

// Compares versions number by number between the dots; none counts as 0, and a number ends at the
// first other character. Negative when `a` is older, 0 when neither is.
int compareVersions(std::string_view a, std::string_view b);

// The applications that are part of the system: the bundles in its Applications directory, read
// once they are asked for. One thread at a time.
class BuiltInApplications {
 public:
  explicit BuiltInApplications(std::string directory) : directory_(std::move(directory)) {}

  // The application, or null when the identifier is that of no built-in application. Fails with
  // kBuiltInUnreadable when that can't be told because something could not be read; the next call
  // reads again.
  Outcome find(const std::string& identifier, const BundleFacts*& application);
  // All of them by identifier; fails likewise.
  Outcome all(const std::map<std::string, BundleFacts>*& applications);

  [[nodiscard]] const std::string& directory() const { return directory_; }

 private:
  Outcome read();

  std::string directory_;
  bool complete_ = false;
  std::map<std::string, BundleFacts> applications_;
};

}  // namespace pallion
