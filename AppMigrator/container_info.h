#pragma once

#include <string>
#include <string_view>

namespace pallion {

// Keys of the dictionary of strings that describes one old container, and that its migration marker
// holds.
inline constexpr std::string_view kContainerPathKey = "ContainerPath";
inline constexpr std::string_view kBundlePathKey = "BundlePath";
inline constexpr std::string_view kSecondBundlePathKey = "SecondBundlePath";
inline constexpr std::string_view kBundleIdentifierKey = "BundleIdentifier";
inline constexpr std::string_view kContainerTypeKey = "ContainerType";

inline constexpr std::string_view kContainerTypeApp = "App";
inline constexpr std::string_view kContainerTypeVPNBundle = "VPNBundle";

// Name of the migration marker file, directly inside an old container.
inline constexpr std::string_view kMigrationMarkerName =
    "com.orlix.pallion.container_migrator.plist";

// Name of the directory in an old container in which its bundle is staged.
inline constexpr std::string_view kStagingName = "Staging";

// Whether an entry of that name, left in an old container that was migrated, is something that the
// migration forgot. The marks of the installer are not.
bool countsAsMissed(const std::string& name);

}  // namespace pallion
