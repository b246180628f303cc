#include "platform/text_escape.h"

#include <cstdint>

namespace pallion {

namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

uint8_t byteAt(std::string_view text, size_t position) {
  return static_cast<uint8_t>(text[position]);
}

bool isControl(uint8_t byte) { return byte < 0x20 || byte == 0x7F; }

void appendHex(std::string& out, uint8_t byte) {
  out += kHexDigits[byte >> 4];
  out += kHexDigits[byte & 0x0F];
}

void appendReplaced(std::string& out, std::string_view bytes) {
  for (const char byte : bytes) {
    out += "\\x";
    appendHex(out, static_cast<uint8_t>(byte));
  }
}

// Calls `each` with every UTF-8 sequence and true, and with every other byte and false.
template <class Each>
void splitUTF8(std::string_view text, const Each& each) {
  while (!text.empty()) {
    const size_t length = utf8SequenceLength(text);
    const std::string_view part = text.substr(0, length == 0 ? 1 : length);
    each(part, length != 0);
    text.remove_prefix(part.size());
  }
}

}  // namespace

size_t utf8SequenceLength(std::string_view text) {
  if (text.empty()) return 0;
  const uint8_t lead = byteAt(text, 0);
  if (lead < 0x80) return 1;
  // A lead byte narrows the range of the byte after it; that keeps out long forms, surrogates and
  // what is beyond U+10FFFF.
  size_t length = 0;
  uint8_t lowest = 0x80;
  uint8_t highest = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) lowest = 0xA0;
    if (lead == 0xED) highest = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) lowest = 0x90;
    if (lead == 0xF4) highest = 0x8F;
  }
  if (length == 0 || text.size() < length) return 0;
  if (byteAt(text, 1) < lowest || byteAt(text, 1) > highest) return 0;
  for (size_t i = 2; i < length; ++i) {
    if ((byteAt(text, i) & 0xC0) != 0x80) return 0;
  }
  return length;
}

void appendWithoutControls(std::string& out, std::string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (isControl(byteAt(text, i))) {
      appendReplaced(out, text.substr(i, 1));
    } else {
      out += text[i];
    }
  }
}

std::string validUTF8(std::string_view text) {
  std::string out;
  splitUTF8(text, [&out](std::string_view part, bool valid) {
    if (valid) {
      out += part;
    } else {
      appendReplaced(out, part);
    }
  });
  return out;
}

std::string terminalText(std::string_view text) {
  std::string out;
  splitUTF8(text, [&out](std::string_view part, bool valid) {
    const bool isC1 = part.size() == 2 && byteAt(part, 0) == 0xC2 && byteAt(part, 1) < 0xA0;
    if (valid && !isC1 && !isControl(byteAt(part, 0))) {
      out += part;
    } else {
      appendReplaced(out, part);
    }
  });
  return out;
}

void appendJSONString(std::string& out, std::string_view text) {
  out += '"';
  splitUTF8(text, [&out](std::string_view part, bool valid) {
    const uint8_t first = byteAt(part, 0);
    if (!valid) {
      out += "\\\\x";
      appendHex(out, first);
    } else if (part == "\"" || part == "\\") {
      out += '\\';
      out += part;
    } else if (first == '\n') {
      out += "\\n";
    } else if (first < 0x20) {
      out += "\\u00";
      appendHex(out, first);
    } else {
      out += part;
    }
  });
  out += '"';
}

}  // namespace pallion
