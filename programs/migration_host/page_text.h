#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// How texts and figures get into the report's page.

namespace pallion::host {

// The one way of a text from outside into the page: as content, or as an attribute in quotes. Bytes
// that a terminal would obey and what is not UTF-8 become "\xHH".
std::string html(std::string_view bytes);

// The same as a JSON string in a script element.
void appendScriptString(std::string& out, std::string_view bytes);

std::string decimal(double value, int digits);
std::string grouped(uint64_t value);  // with a blank between thousands
std::string counted(uint64_t count, const char* one, const char* many);
// As people write them: "8.0 ms", "1.25 s", "3 min 5 s"; "12 B", "1.5 MiB".
std::string duration(double seconds);
std::string size(uint64_t bytes);

}  // namespace pallion::host
