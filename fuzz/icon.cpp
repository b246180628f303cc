#include <cstdint>

#include "fuzz/fuzz_target.h"
#include "platform/image_scaling.h"
#include "platform/png_codec.h"
#include "tests/helpers/allocation_meter/allocation_meter.h"
#include "tests/helpers/png_bytes.h"

namespace pallion::fuzz {

namespace {

constexpr size_t kSignatureSize = 8;
constexpr size_t kChunkExtra = 12;  // length, type and checksum
// Larger images would only make the fuzzer slow; the largest ones are a matter of the tests.
constexpr uint64_t kMostPixels = uint64_t{1} << 18;

uint32_t number(const std::string& bytes, size_t at) {
  uint32_t value = 0;
  for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<uint8_t>(bytes[at + i]);
  return value;
}

// Makes the checksums of all whole chunks right, which otherwise would hide what is behind them
// from the fuzzer.
void mendChecksums(std::string& bytes) {
  size_t at = kSignatureSize;
  while (at + kChunkExtra <= bytes.size()) {
    const size_t length = number(bytes, at);
    if (length > bytes.size() - at - kChunkExtra) return;
    const uint32_t crc = test::crc32(std::string_view(bytes).substr(at + 4, length + 4));
    for (size_t i = 0; i < 4; ++i)
      bytes[at + 8 + length + i] = static_cast<char>(crc >> (24 - 8 * i));
    at += length + kChunkExtra;
  }
}

}  // namespace

void runInput(std::string_view input) {
  std::string bytes(input);
  if (bytes.size() < kSignatureSize + kChunkExtra + 8) {
    require(!decodePNG(bytes), "what is shorter than a header is no image");
    return;
  }
  const uint64_t width = number(bytes, 16);
  if (width * number(bytes, 20) > kMostPixels) return;
  if (bytes.back() != '!') mendChecksums(bytes);  // the others are left as they are
  std::optional<Image> image;
  {
    const test::AllocationMeter meter;
    image = decodePNG(bytes);
    require(meter.peak() <= kMostPixels * 4 + (size_t{1} << 20), "memory is that of the pixels");
  }
  if (!image) return;
  require(image->width == width && image->pixels.size() == width * image->height * 4,
          "an image has the pixels of its size");
  const Image icon = scaledImage(*image, kHomeScreenIconSize, kHomeScreenIconSize);
  const std::optional<std::string> encoded = encodePNG(icon);
  require(encoded.has_value(), "an icon can be encoded");
  const std::optional<Image> again = decodePNG(*encoded);
  require(again && again->pixels == icon.pixels, "encoding loses nothing");
}

}  // namespace pallion::fuzz
