#pragma once

#include <charconv>
#include <optional>
#include <string_view>

namespace pallion::tool {

// The number that `text` is: decimal digits, for signed types after a "-", and nothing else.
// Nothing for what does not fit either.
template <class T>
std::optional<T> wholeNumber(std::string_view text) {
  T number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

}  // namespace pallion::tool
