#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// PNG files put together by hand, so that tests can also make the kinds that the product's own
// encoder does not write, and the ones that claim what is not true.

namespace pallion::test {

struct PNGParts {
  uint32_t width = 0;
  uint32_t height = 0;
  uint8_t depth = 8;
  uint8_t colorType = 6;  // 0 gray, 2 RGB, 3 palette, 4 gray and alpha, 6 RGBA
  std::string rows;       // each row begins with its filter byte; not compressed
  bool interlaced = false;
  std::vector<std::pair<std::string, std::string>> chunks =
      {};  // type and content, before the pixels
};

std::string pngBytes(const PNGParts& parts);
// The checksum of a chunk's type and content.
uint32_t crc32(std::string_view bytes);
// `bytes` as a zlib stream of stored blocks.
std::string zlibStored(std::string_view bytes);
// A zlib stream that unfolds to `size` zero bytes: about a thousandth of that long.
std::string zlibBomb(size_t size);

}  // namespace pallion::test
