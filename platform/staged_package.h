#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/built_in_applications.h"
#include "platform/registry_refusal.h"

namespace pallion {

// What a staging directory holds in its directory Payload: an application, perhaps with a plug-in
// beside it, or a plug-in alone, or nothing.
struct StagedPackage {
  std::optional<BundleFacts> main;    // the application, or the plug-in that stands alone
  std::optional<BundleFacts> plugin;  // the plug-in beside an application
  std::string mainPath;               // where the main bundle stands
};

// Looks at it without changing it. Refuses any other content, links and files in the bundles'
// places, an information property list that can't be read, and items beside Payload that a bundle's
// name would collide with.
Outcome inspectPackage(const std::string& directory, StagedPackage& package);
// The same for bundles that may stand elsewhere as yet, each given by its directory and its name.
// An empty `directory` holds nothing to collide with.
using BundlePlaces = std::vector<std::pair<std::string, std::string>>;
Outcome inspectBundles(const BundlePlaces& bundles, const std::string& directory,
                       StagedPackage& package);

// Whether the plug-in of a package that has one gets a record beside the application's.
bool hasRecordOfItsOwn(const StagedPackage& package);

// "App" or "VPNBundle", by the extension of the bundle's name; null for any other.
const char* bundleTypeOf(const std::string& name);

// Whether the executable that a bundle names is a regular file in it.
Outcome checkExecutable(const std::string& bundlePath, const BundleFacts& facts);

// Set the attributes of an installed bundle. 0 or an errno. Where a file system keeps no attributes
// there is none, which is no failure: the registry remembers placeholders itself, and a bundle
// without the attribute has install type 0.
int markAsPlaceholder(const std::string& bundlePath);
int setInstallType(const std::string& bundlePath, uint64_t installType);
// The install type on each bundle of the package in `directory`.
Outcome setInstallTypes(const std::string& directory, const StagedPackage& package,
                        uint64_t installType);

}  // namespace pallion
