#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/icon.h"

// PNG files in memory. Any thread may call these.

namespace pallion {

// The pixels of a PNG of any kind. Nothing for bytes that are no whole PNG, or when a side is above
// kIconMaximumSide. Memory is at most that of the pixels and a few rows, whatever the bytes claim.
std::optional<Image> decodePNG(std::string_view bytes);

// The file, or nothing for an image without pixels, with a side above kIconMaximumSide, or whose
// pixels don't match its size.
std::optional<std::string> encodePNG(const Image& image);

}  // namespace pallion
