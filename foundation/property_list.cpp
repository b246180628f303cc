#include "foundation/property_list.h"

#include <cerrno>

#include "foundation/property_list_formats.h"

namespace pallion {

namespace detail {

char32_t takeCharacter(std::string_view& text) {
  const auto lead = static_cast<unsigned char>(text.front());
  text.remove_prefix(1);
  if (lead < 0x80) return lead;
  const size_t following = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < following) return kNoCharacter;
  char32_t character = lead & (0x3FU >> following);
  for (size_t i = 0; i < following; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0) != 0x80) return kNoCharacter;
    character = character << 6 | (byte & 0x3F);
  }
  text.remove_prefix(following);
  // Longer than needed, a surrogate, or beyond Unicode.
  constexpr char32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
  if (character < kSmallest[following] || isSurrogate || character > 0x10FFFF) return kNoCharacter;
  return character;
}

void appendUTF8(std::string& out, char32_t character) {
  const auto append = [&out](char32_t byte) { out += static_cast<char>(byte); };
  if (character < 0x80) {
    append(character);
    return;
  }
  if (character < 0x800) {
    append(0xC0 | character >> 6);
  } else {
    if (character < 0x10000) {
      append(0xE0 | character >> 12);
    } else {
      append(0xF0 | character >> 18);
      append(0x80 | (character >> 12 & 0x3F));
    }
    append(0x80 | (character >> 6 & 0x3F));
  }
  append(0x80 | (character & 0x3F));
}

}  // namespace detail

Value readPropertyList(std::string_view bytes) {
  return bytes.starts_with(detail::kBinaryMagic) ? detail::readBinaryPropertyList(bytes)
                                                 : detail::readXMLPropertyList(bytes);
}

std::optional<std::string> writePropertyList(const Value& value, PropertyListFormat format) {
  return format == PropertyListFormat::kBinary ? detail::writeBinaryPropertyList(value)
                                               : detail::writeXMLPropertyList(value);
}

Value readPropertyListFile(const URL& url, int* errorNumber) {
  const std::optional<std::string> bytes = readFile(url, errorNumber);
  if (!bytes) return {};
  Value value = readPropertyList(*bytes);
  if (!value && errorNumber) *errorNumber = EILSEQ;
  return value;
}

std::optional<Dictionary> readDictionaryFile(const URL& url, int* errorNumber) {
  const Value value = readPropertyListFile(url, errorNumber);
  if (!value) return std::nullopt;
  const Dictionary* dictionary = value.asDictionary();
  if (dictionary) return *dictionary;
  if (errorNumber) *errorNumber = EILSEQ;
  return std::nullopt;
}

int writePropertyListFile(const Value& value, const URL& url, PropertyListFormat format,
                          Durability durability) {
  const std::optional<std::string> bytes = writePropertyList(value, format);
  return bytes ? writeFileAtomically(url, *bytes, durability) : EILSEQ;
}

}  // namespace pallion
