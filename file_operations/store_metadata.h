#pragma once

#include <array>
#include <string_view>

namespace pallion {

// A file at the top level of an old container that travels with a store application, and the key of
// an error about it.
struct StoreMetadataItem {
  std::string_view name;
  std::string_view failureKey;
};

inline constexpr std::array<StoreMetadataItem, 4> kStoreMetadataItems = {{
    {"Manifest.plist", "ManifestCaptureFailed"},
    {"BriscaArtwork", "BriscaArtworkCaptureFailed"},
    {"BriscaMetadata.plist", "BriscaMetadataCaptureFailed"},
    {"GeoJSON", "GeoJSONCaptureFailed"},
}};

}  // namespace pallion
