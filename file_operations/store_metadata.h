#pragma once

#include <array>
#include <string_view>

#include "platform/store_metadata.h"

namespace pallion {

// A file at the top level of an old container that travels with a store application, and the key of
// an error about it.
struct StoreMetadataItem {
  std::string_view name;
  std::string_view failureKey;
};

inline constexpr std::array<StoreMetadataItem, 4> kStoreMetadataItems = {{
    {kStoreMetadataNames[0], "ManifestCaptureFailed"},
    {kStoreMetadataNames[1], "BriscaArtworkCaptureFailed"},
    {kStoreMetadataNames[2], "BriscaMetadataCaptureFailed"},
    {kStoreMetadataNames[3], "GeoJSONCaptureFailed"},
}};

}  // namespace pallion
