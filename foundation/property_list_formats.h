#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/value.h"

// What the readers and writers of the two formats share with property_list.cpp; not for use
// elsewhere.

namespace pallion::detail {

inline constexpr std::string_view kBinaryMagic = "bplist00";

Value readXMLPropertyList(std::string_view bytes);
// `bytes` begins with kBinaryMagic.
Value readBinaryPropertyList(std::string_view bytes);

std::optional<std::string> writeXMLPropertyList(const Value& value);
std::optional<std::string> writeBinaryPropertyList(const Value& value);

// What a binary list may unfold to, counting each value once for every path that leads to it:
// values plus the bytes of texts and data. 16 is far above what repeated keys and texts of real
// lists come to; what a tiny file may unfold to is written and compared in milliseconds.
inline uint64_t unfoldedLimit(size_t fileSize) {
  return std::max<uint64_t>(uint64_t{1} << 16, uint64_t{fileSize} * 16);
}

// Takes the first character off a text that is not empty; kNoCharacter where it is not UTF-8 (RFC
// 3629).
inline constexpr char32_t kNoCharacter = 0xFFFFFFFF;
char32_t takeCharacter(std::string_view& text);
void appendUTF8(std::string& out, char32_t character);

}  // namespace pallion::detail
