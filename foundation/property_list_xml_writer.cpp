#include <charconv>
#include <cmath>
#include <iterator>

#include "foundation/property_list.h"
#include "foundation/property_list_formats.h"

namespace pallion::detail {

namespace {

// The characters of XML 1.0 that a text takes as they are or escaped; all others can't be written
// at all. A carriage return as it is would be read back as a line feed.
bool appendText(std::string& out, std::string_view text) {
  while (!text.empty()) {
    size_t plain = 0;
    while (plain < text.size()) {
      const auto byte = static_cast<unsigned char>(text[plain]);
      const bool isPlain = byte < 0x80 && (byte >= 0x20 || byte == '\t' || byte == '\n');
      if (!isPlain || byte == '&' || byte == '<' || byte == '>') break;
      ++plain;
    }
    out += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    const std::string_view rest = text;
    const char32_t character = takeCharacter(text);
    switch (character) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '\r':
        out += "&#13;";
        break;
      default:
        if (character < 0x20 || character == 0xFFFE || character == 0xFFFF ||
            character == kNoCharacter)
          return false;
        out += rest.substr(0, rest.size() - text.size());
    }
  }
  return true;
}

void appendBase64(std::string& out, std::string_view bytes) {
  constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t count = std::min<size_t>(bytes.size() - i, 3);
    uint32_t group = 0;
    for (size_t k = 0; k < 3; ++k) {
      group = group << 8 | (k < count ? static_cast<unsigned char>(bytes[i + k]) : 0U);
    }
    for (size_t k = 0; k < 4; ++k) out += k <= count ? kDigits[group >> (18 - 6 * k) & 63] : '=';
  }
}

template <class Number>
void appendNumber(std::string& out, std::string_view name, Number number) {
  char digits[32];
  const std::to_chars_result end = std::to_chars(digits, std::end(digits), number);
  out += '<';
  out += name;
  out += '>';
  out.append(digits, end.ptr);
  out += "</";
  out += name;
  out += ">\n";
}

class XMLWriter {
 public:
  bool append(const Value& value, int enclosing);
  std::string out;

 private:
  bool appendElement(std::string_view name, std::string_view text);
  bool appendEntries(const Dictionary& entries, int enclosing);
  void indent(int level) { out.append(static_cast<size_t>(level), '\t'); }
};

bool XMLWriter::appendElement(std::string_view name, std::string_view text) {
  out += '<';
  out += name;
  out += '>';
  if (!appendText(out, text)) return false;
  out += "</";
  out += name;
  out += ">\n";
  return true;
}

bool XMLWriter::append(const Value& value, int enclosing) {
  indent(enclosing);
  switch (value.valueClass()) {
    case Value::Class::kString:
      return appendElement("string", *value.asString());
    case Value::Class::kBoolean:
      out += *value.asBoolean() ? "<true/>\n" : "<false/>\n";
      return true;
    case Value::Class::kNumber:
      if (value.isReal()) {
        appendNumber(out, "real", value.doubleValue());
      } else if (value.isLargeUnsigned()) {
        appendNumber(out, "integer", value.uint64Value());
      } else {
        appendNumber(out, "integer", value.int64Value());
      }
      return true;
    case Value::Class::kData:
      out += "<data>";
      appendBase64(out, *value.asData());
      out += "</data>\n";
      return true;
    case Value::Class::kDate: {
      const std::string text = dateText(*value.asDate());
      return !text.empty() && appendElement("date", text);
    }
    case Value::Class::kArray:
      if (enclosing >= kPropertyListMaximumDepth) return false;
      out += "<array>\n";
      for (const Value& member : *value.asArray()) {
        if (!append(member, enclosing + 1)) return false;
      }
      indent(enclosing);
      out += "</array>\n";
      return true;
    case Value::Class::kDictionary:
      return enclosing < kPropertyListMaximumDepth &&
             appendEntries(*value.asDictionary(), enclosing);
    case Value::Class::kNone:
    case Value::Class::kSet:
      return false;
  }
  return false;
}

bool XMLWriter::appendEntries(const Dictionary& entries, int enclosing) {
  out += "<dict>\n";
  for (const auto& [key, value] : entries) {
    const std::string* name = key.asString();
    if (!name) return false;
    indent(enclosing + 1);
    if (!appendElement("key", *name) || !append(value, enclosing + 1)) return false;
  }
  indent(enclosing);
  out += "</dict>\n";
  return true;
}

}  // namespace

std::optional<std::string> writeXMLPropertyList(const Value& value) {
  XMLWriter writer;
  writer.out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
  if (!writer.append(value, 0)) return std::nullopt;
  writer.out += "</plist>\n";
  return std::move(writer.out);
}

}  // namespace pallion::detail
