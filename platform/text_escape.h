#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Texts are bytes and may hold anything that a file name may. These make them fit for a line, for
// JSON and for a terminal. What is replaced becomes "\xHH", one for each byte; a backslash that was
// there stays as it is.

namespace pallion {

// Length of the well-formed UTF-8 sequence that `text` begins with (RFC 3629: shortest forms, no
// surrogates, up to U+10FFFF); 0 when there is none.
size_t utf8SequenceLength(std::string_view text);

// Replaces the control bytes (below 0x20, and 0x7F), so that a text can neither end a line nor
// begin one. Everything else stays byte for byte.
void appendWithoutControls(std::string& out, std::string_view text);

// Replaces the bytes that are not UTF-8.
std::string validUTF8(std::string_view text);

// Replaces both, and the control characters U+0080 to U+009F, which terminals obey like escape
// sequences.
std::string terminalText(std::string_view text);

// A JSON string with its quotes; bytes that are not UTF-8 become the text "\xHH".
void appendJSONString(std::string& out, std::string_view text);

}  // namespace pallion
