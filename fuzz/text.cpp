#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "foundation/format.h"
#include "foundation/property_list_formats.h"
#include "fuzz/fuzz_target.h"
#include "platform/log_line.h"
#include "platform/text_escape.h"

// A text with hostile bytes: as a message's format, as its argument, as a log line, and on a
// terminal.

namespace pallion::fuzz {

namespace {

bool isUTF8(std::string_view text) {
  while (!text.empty()) {
    if (detail::takeCharacter(text) == detail::kNoCharacter) return false;
  }
  return true;
}

// Formats `text` with arguments that fit it, and compares with the same pieces put together by
// printf's rules.
void checkFormat(const char* text, const std::string& object, int64_t number) {
  using detail::Conversion;
  std::vector<FormatArgument> arguments;
  std::string expected;
  const char* rest = text;
  while (true) {
    const char* literal = rest;
    const char* literalEnd = nullptr;
    const Conversion conversion = detail::nextConversion(rest, literalEnd);
    if (conversion == Conversion::kBad) return;  // would not compile
    for (; literal != literalEnd; ++literal) {
      expected += *literal;
      if (literal[0] == '%' && literal[1] == '%') ++literal;
    }
    const auto add = [&](const auto& argument, const std::string& printed) {
      arguments.emplace_back(argument);
      expected += printed;
    };
    const auto small = static_cast<unsigned>(number);
    char hex[16];
    switch (conversion) {
      case Conversion::kEnd:
        require(formatArguments(text, arguments) == expected, "a message is what its format says");
        return;
      case Conversion::kObject:
      case Conversion::kText:
        add(object, object);
        break;
      case Conversion::kInt:
        add(static_cast<int>(small), std::to_string(static_cast<int>(small)));
        break;
      case Conversion::kLong:
      case Conversion::kLongLong:
        add(number, std::to_string(number));
        break;
      case Conversion::kUnsigned:
        add(small, std::to_string(small));
        break;
      case Conversion::kUnsignedLong:
        add(static_cast<uint64_t>(number), std::to_string(static_cast<uint64_t>(number)));
        break;
      case Conversion::kHex8:
        std::snprintf(hex, sizeof hex, "%08X", small);
        add(small, hex);
        break;
      default:
        return;
    }
  }
}

void checkLogLines(const std::string& text) {
  const LogLine line{{}, 3, text.c_str(), text.c_str(), 1, text, text};
  const std::string plain = formatLogLine(LogFormat::kText, line);
  for (size_t i = 0; i < plain.size(); ++i) {
    const auto byte = static_cast<unsigned char>(plain[i]);
    const bool isControl = byte < 0x20 || byte == 0x7F;
    require(isControl == (i == plain.size() - 1), "only the end of a line is a control character");
  }
  const std::string json = formatLogLine(LogFormat::kJSON, line);
  require(json.find('\n') == json.size() - 1, "an object stands on one line");
  const nlohmann::json object = nlohmann::json::parse(json, nullptr, false);
  require(object.is_object(), "a line is valid JSON");
  require(!isUTF8(text) || object["message"] == text, "JSON gives the message back");
}

void checkTerminalText(std::string_view text) {
  std::string shown = terminalText(text);
  require(validUTF8(shown) == shown, "what a terminal gets is UTF-8");
  std::string_view rest = shown;
  while (!rest.empty()) {
    const char32_t character = detail::takeCharacter(rest);
    require(character >= 0x20 && !(character >= 0x7F && character < 0xA0) &&
                character != detail::kNoCharacter,
            "a terminal gets no control characters");
  }
  require(isUTF8(text) == (validUTF8(text) == text), "only what is not UTF-8 is replaced");
}

}  // namespace

void runInput(std::string_view input) {
  const std::string text(input);
  int64_t number = 0;
  std::memcpy(&number, input.data(), std::min(input.size(), sizeof number));
  checkFormat(text.c_str(), text, number);
  checkLogLines(text);
  checkTerminalText(text);
}

}  // namespace pallion::fuzz
