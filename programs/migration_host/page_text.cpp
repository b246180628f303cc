#include "programs/migration_host/page_text.h"

#include <array>
#include <cmath>
#include <cstdio>

#include "platform/text_escape.h"

namespace pallion::host {

// The one way of a text from outside into the page: as content, or as an attribute in quotes.
std::string html(std::string_view bytes) {
  std::string out;
  for (const char c : terminalText(bytes)) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// The same into the data for the script. JSON has "<" in strings only, where it may stand for the
// end of the script element.
void appendScriptString(std::string& out, std::string_view bytes) {
  std::string text;
  appendJSONString(text, terminalText(bytes));
  for (const char c : text) {
    if (c == '<') {
      out += "\\u003c";
    } else {
      out += c;
    }
  }
}

std::string decimal(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

std::string duration(double seconds) {
  if (seconds < 0.0095) return decimal(seconds * 1000, 1) + " ms";
  if (seconds < 0.9995) return decimal(seconds * 1000, 0) + " ms";
  if (seconds < 60) return decimal(seconds, 2) + " s";
  const auto whole = std::llround(seconds);
  const std::string minutes = std::to_string(whole / 60 % 60) + " min";
  if (whole < 3600) return minutes + " " + std::to_string(whole % 60) + " s";
  return std::to_string(whole / 3600) + " h " + minutes;
}

std::string size(uint64_t bytes) {
  constexpr std::array<const char*, 5> kUnits = {" B", " KiB", " MiB", " GiB", " TiB"};
  auto value = static_cast<double>(bytes);
  size_t unit = 0;
  for (; value >= 1023.95 && unit + 1 < kUnits.size(); ++unit) value /= 1024;
  return decimal(value, unit == 0 ? 0 : 1) + kUnits[unit];
}

// With a blank between thousands (U+202F, narrow and not broken).
std::string grouped(uint64_t value) {
  std::string digits = std::to_string(value);
  for (size_t i = digits.size(); i > 3; i -= 3) digits.insert(i - 3, "\u202F");
  return digits;
}

std::string counted(uint64_t count, const char* one, const char* many) {
  return grouped(count) + " " + (count == 1 ? one : many);
}

}  // namespace pallion::host
