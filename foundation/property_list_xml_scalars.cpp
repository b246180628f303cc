#include "foundation/property_list_xml_scalars.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <system_error>

namespace pallion::detail {

namespace {

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n";
  const size_t first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

// Takes a sign off; true for "-".
bool takeSign(std::string_view& text) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  return negative;
}

template <class Number, class... Options>
bool parseWhole(std::string_view text, Number& number, Options... options) {
  const char* end = text.data() + text.size();
  const std::from_chars_result result = std::from_chars(text.data(), end, number, options...);
  return result.ec == std::errc() && result.ptr == end;
}

// Two or four digits at `at`; -1 without them.
int digits(std::string_view text, size_t at, size_t count) {
  int number = 0;
  for (const char c : text.substr(at, count)) {
    if (c < '0' || c > '9') return -1;
    number = number * 10 + (c - '0');
  }
  return number;
}

// 0 to 63; 64 for white space, 65 for padding, 66 for all else.
constexpr uint8_t kBase64Space = 64;
constexpr uint8_t kBase64Padding = 65;
constexpr uint8_t kBase64Bad = 66;
constexpr std::array<uint8_t, 256> kBase64 = [] {
  std::array<uint8_t, 256> table{};
  table.fill(kBase64Bad);
  uint8_t value = 0;
  for (const char c :
       std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/")) {
    table[static_cast<unsigned char>(c)] = value++;
  }
  for (const char c : std::string_view(" \t\r\n"))
    table[static_cast<unsigned char>(c)] = kBase64Space;
  table['='] = kBase64Padding;
  return table;
}();

}  // namespace

Value parseInteger(std::string_view text) {
  text = trimmed(text);
  const bool negative = takeSign(text);
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    text.remove_prefix(2);
    base = 16;
  }
  uint64_t magnitude = 0;
  if (!parseWhole(text, magnitude, base)) return {};
  if (!negative) return Value::unsignedInteger(magnitude);
  if (magnitude > uint64_t{1} << 63) return {};
  return Value::integer(static_cast<int64_t>(-magnitude));
}

Value parseReal(std::string_view text) {
  text = trimmed(text);
  const bool negative = takeSign(text);
  // What is behind the sign is a number or one of the three words; "nan(...)" and a second sign are
  // not.
  if (text.starts_with('-') || text.ends_with(')')) return {};
  double number = 0;
  if (!parseWhole(text, number)) return {};
  return Value::real(negative ? -number : number);
}

Value parseDate(std::string_view text) {
  constexpr std::string_view kPattern = "dddd-dd-ddTdd:dd:ddZ";
  text = trimmed(text);
  if (text.size() != kPattern.size()) return {};
  for (size_t i = 0; i < kPattern.size(); ++i) {
    if (kPattern[i] != 'd' && text[i] != kPattern[i]) return {};
  }
  const int year = digits(text, 0, 4);
  const int month = digits(text, 5, 2);
  const int day = digits(text, 8, 2);
  const int hour = digits(text, 11, 2);
  const int minute = digits(text, 14, 2);
  const int second = digits(text, 17, 2);
  if (year < 1 || month < 1 || month > 12 || day < 1 || hour < 0 || hour > 23) return {};
  if (minute < 0 || minute > 59 || second < 0 || second > 59) return {};
  const bool isLeap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
  constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (day > kDays[month - 1] + (isLeap && month == 2 ? 1 : 0)) return {};
  // Days from 0001-01-01 in the Gregorian calendar; 730,485 of them lead to 2001-01-01.
  const int past = year - 1;
  int64_t days = int64_t{365} * past + past / 4 - past / 100 + past / 400 + day - 1 - 730485;
  for (int i = 0; i < month - 1; ++i) days += kDays[i];
  if (isLeap && month > 2) ++days;
  return Value::date(
      static_cast<double>(days * 86400 + int64_t{hour} * 3600 + int64_t{minute} * 60 + second));
}

Value parseBase64(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size() / 4 * 3);
  uint32_t group = 0;
  size_t inGroup = 0;
  size_t padding = 0;
  for (const char c : text) {
    const uint8_t digit = kBase64[static_cast<unsigned char>(c)];
    if (digit == kBase64Space) continue;
    if (digit == kBase64Bad) return {};
    if (digit == kBase64Padding) {
      if (++padding > 2 || inGroup < 2) return {};
    } else if (padding != 0) {
      return {};
    }
    group = group << 6 | (digit & 63U);
    if (++inGroup < 4) continue;
    for (size_t i = 0; i < 3 - padding; ++i)
      bytes += static_cast<char>(group >> (16 - 8 * i) & 0xFF);
    group = 0;
    inGroup = 0;
  }
  return inGroup == 0 ? Value::data(std::move(bytes)) : Value();
}

}  // namespace pallion::detail
