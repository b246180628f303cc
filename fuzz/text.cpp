#include <nlohmann/json.hpp>

#include "foundation/format.h"
#include "foundation/property_list_formats.h"
#include "fuzz/fuzz_target.h"
#include "platform/log_line.h"
#include "platform/text_escape.h"

// A text with hostile bytes: as a message's argument, as a log line, and on a terminal.

namespace pallion::fuzz {

namespace {

bool isUTF8(std::string_view text) {
  while (!text.empty()) {
    if (detail::takeCharacter(text) == detail::kNoCharacter) return false;
  }
  return true;
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
  require(format("%@ %%%s", text, text) == text + " %" + text, "an argument is no format");
  checkLogLines(text);
  checkTerminalText(text);
}

}  // namespace pallion::fuzz
