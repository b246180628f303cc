#include "tests/helpers/png_bytes.h"

#include <algorithm>

namespace pallion::test {

namespace {

std::string bigEndian(uint32_t number) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(number >> shift);
  return bytes;
}

std::string chunk(const std::string& type, const std::string& content) {
  return bigEndian(static_cast<uint32_t>(content.size())) + type + content +
         bigEndian(crc32(type + content));
}

// Deflate packs bits from the lowest upwards, but Huffman codes with their highest bit first.
class BitWriter {
 public:
  void code(uint32_t bits, int count) {
    while (count-- > 0) bit((bits >> count) & 1);
  }
  void bit(uint32_t value) {
    if (used_ == 0) bytes_ += '\0';
    bytes_.back() = static_cast<char>(static_cast<uint8_t>(bytes_.back()) | (value << used_));
    used_ = (used_ + 1) % 8;
  }
  [[nodiscard]] const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
  int used_ = 0;
};

}  // namespace

uint32_t crc32(std::string_view bytes) {
  uint32_t crc = ~0U;
  for (const char byte : bytes) {
    crc ^= static_cast<uint8_t>(byte);
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320U : 0);
  }
  return ~crc;
}

std::string zlibStored(std::string_view bytes) {
  uint32_t a = 1;
  uint32_t b = 0;
  for (const char byte : bytes) {
    a = (a + static_cast<uint8_t>(byte)) % 65521;
    b = (b + a) % 65521;
  }
  std::string out = "\x78\x01";
  do {
    const size_t count = std::min<size_t>(bytes.size(), 0xFFFF);
    out += count == bytes.size() ? '\1' : '\0';
    const std::string length = bigEndian(static_cast<uint32_t>(count | (~count << 16)));
    out += {length[3], length[2], length[1], length[0]};
    out += bytes.substr(0, count);
    bytes.remove_prefix(count);
  } while (!bytes.empty());
  return out + bigEndian(b << 16 | a);
}

std::string zlibBomb(size_t size) {
  BitWriter out;
  out.bit(1);  // the last block
  out.bit(1);  // of fixed codes, 01
  out.bit(0);
  out.code(0x30, 8);  // the byte 0
  for (size_t done = 1; done + 258 <= size; done += 258) {
    out.code(0xC5, 8);  // the last 258 bytes again:
    out.code(0, 5);     // from one byte before
  }
  out.code(0, 7);  // end of block
  const size_t unfolded = 1 + (size - 1) / 258 * 258;
  return "\x78\x01" + out.bytes() + bigEndian(static_cast<uint32_t>(unfolded % 65521) << 16 | 1);
}

std::string pngBytes(const PNGParts& parts) {
  std::string header = bigEndian(parts.width) + bigEndian(parts.height);
  header += static_cast<char>(parts.depth);
  header += static_cast<char>(parts.colorType);
  header += {0, 0, static_cast<char>(parts.interlaced)};
  std::string out = "\x89PNG\r\n\x1a\n" + chunk("IHDR", header);
  for (const auto& [type, content] : parts.chunks) out += chunk(type, content);
  return out + chunk("IDAT", zlibStored(parts.rows)) + chunk("IEND", "");
}

}  // namespace pallion::test
