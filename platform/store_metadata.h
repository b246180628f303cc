#pragma once

#include <array>

namespace pallion {

inline constexpr const char* kBriscaMetadataName = "BriscaMetadata.plist";

// Store metadata files, which stand beside a bundle in its container.
inline constexpr std::array<const char*, 4> kStoreMetadataNames = {
    "Manifest.plist", "BriscaArtwork", kBriscaMetadataName, "GeoJSON"};

}  // namespace pallion
