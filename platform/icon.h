#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/bundle.h"

namespace pallion {

// Pixels in rows from the top, four bytes each: red, green, blue, alpha (not premultiplied).
struct Image {
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<uint8_t> pixels;
};

// Size of a home-screen icon on this device, in pixels a side.
inline constexpr uint32_t kHomeScreenIconSize = 120;
// Icons with a side or a file above these are taken for damaged.
inline constexpr uint32_t kIconMaximumSide = 4096;
inline constexpr uint64_t kIconMaximumFileSize = uint64_t{16} << 20;

// Renders the home-screen icon of a bundle: the PNG directly inside it that kQXBundleIconFile names
// (with or without its extension), scaled to kHomeScreenIconSize, alpha kept. Nothing when the name
// is missing or no plain name, or the file is missing, oversized, damaged or no PNG.
class IconRenderer {
 public:
  IconRenderer() = default;
  IconRenderer(const IconRenderer&) = delete;
  IconRenderer& operator=(const IconRenderer&) = delete;
  virtual ~IconRenderer() = default;
  virtual std::optional<Image> render(QXBundle& bundle) = 0;

  // The seam; see RecursiveRemove.
  static IconRenderer& current();
  static IconRenderer* replace(IconRenderer* replacement);
  static IconRenderer& system();
};

std::optional<Image> CreateHomeScreenIconImageFromBundle(QXBundle& bundle);

// Encodes images into a buffer in memory. The only type is "public.png", the only count 1.
class ImageEncoder {
 public:
  virtual ~ImageEncoder() = default;
  // Null for another type or count, or when a replacement refuses. `buffer` must outlive the
  // encoder.
  static std::unique_ptr<ImageEncoder> createWithData(std::string& buffer, const std::string& type,
                                                      size_t count);
  virtual void addImage(const Image& image) = 0;
  // Writes the buffer. False when no image was added or it could not be encoded.
  virtual bool finalize() = 0;

  // The seam: makes the encoders. `replace` with null goes back to the one over libpng; answers the
  // one before.
  using Factory = std::unique_ptr<ImageEncoder> (*)(std::string& buffer, const std::string& type,
                                                    size_t count);
  static Factory replace(Factory factory);
};

}  // namespace pallion
