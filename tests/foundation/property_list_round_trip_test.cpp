#include <cmath>
#include <gtest/gtest.h>

#include "foundation/format.h"
#include "foundation/property_list.h"

namespace pallion {
namespace {

// Equality that also tells 1 from 1.0, 0.0 from -0.0, and knows NaN.
bool same(const Value& a, const Value& b) {
  if (a.asArray() && b.asArray())
    return std::equal(a.asArray()->begin(), a.asArray()->end(), b.asArray()->begin(),
                      b.asArray()->end(), same);
  if (!a.isReal() || !b.isReal()) return a == b && a.isReal() == b.isReal();
  const double x = a.doubleValue();
  const double y = b.doubleValue();
  return std::isnan(x) ? std::isnan(y) : x == y && std::signbit(x) == std::signbit(y);
}

Value array(int depth) {
  return Value::array(depth > 1 ? Value::Array{array(depth - 1)} : Value::Array());
}

TEST(PropertyListRoundTrip, KeepsEveryClassAndEdge) {
  std::string allBytes;
  for (int i = 0; i < 256; ++i) allBytes += static_cast<char>(i);
  std::string text;  // larger than the pieces that the parser is fed with
  while (text.size() < 1000000) text += "line \u20ac & " + std::to_string(text.size()) + "\n";
  Dictionary many;
  for (int i = 0; i < 70000; ++i) many.set("key " + std::to_string(i), Value::integer(i));
  Value::Array numbers;  // around the widths
  for (const int64_t number :
       {INT64_MIN, int64_t{-129}, int64_t{-1}, int64_t{0}, int64_t{255}, int64_t{256},
        int64_t{65535}, int64_t{65536}, int64_t{4294967295}, int64_t{4294967296}, INT64_MAX})
    numbers.push_back(Value::integer(number));
  for (const double number : {0.0, -0.0, 1.0, 0.1, 5e-324, 1.7976931348623157e308, 1e22, HUGE_VAL,
                              -HUGE_VAL, std::nan("")})
    numbers.push_back(Value::real(number));
  for (const uint64_t number : {uint64_t{1} << 63, UINT64_MAX})
    numbers.push_back(Value::unsignedInteger(number));
  const std::pair<const char*, Value> kCases[] = {
      {"14 and 15 bytes",
       Value::array({Value::string("12345678901234"), Value::string("123456789012345")})},
      {"white space", Value::string(" \t\n a \r\n b\r")},
      {"markup", Value::string("<a href=\"x\">&amp;]]></a>'")},
      {"two to four bytes a character",
       Value::string("\u00e9\u0800\u20ac\ufffd\U00010000\U0001f600\U0010ffff\u007f\u0085")},
      {"long texts", Value::array({Value::string(text), Value::data(text), Value::string(text)})},
      {"numbers and a truth", Value::array({Value::array(numbers), Value::boolean(true)})},
      {"data", Value::array({Value::data(""), Value::data("a"), Value::data("ab"),
                             Value::data("abc"), Value::data(allBytes)})},
      {"dates", Value::array({Value::date(0), Value::date(-63113904000.0),
                              Value::date(252423993599.0), Value::date(-1)})},
      {"empty ones", Value::dictionary({{"", Value::string("")}, {"d", Value::dictionary({})}})},
      {"many keys", Value::dictionary(many)},
      {"a long text in many places",
       Value::array(Value::Array(1000, Value::string(std::string(5000, 'x'))))},
      {"deepest", array(kPropertyListMaximumDepth)}};
  for (const auto& [name, value] : kCases) {
    for (const auto format : {PropertyListFormat::kXML, PropertyListFormat::kBinary}) {
      const std::optional<std::string> bytes = writePropertyList(value, format);
      ASSERT_TRUE(bytes) << name;
      EXPECT_TRUE(same(readPropertyList(*bytes), value)) << name << static_cast<int>(format);
      EXPECT_FALSE(readPropertyList(std::string_view(*bytes).substr(0, bytes->size() - 2))) << name;
    }
  }
}

TEST(PropertyListRoundTrip, WritesOnlyWhatCanBeReadBack) {
  Dictionary keyed;
  keyed.set(Value::array({Value::integer(1)}), Value::string("x"));
  std::vector<Value> inNeither = {
      Value(), Value::array({Value()}), Value::dictionary({{"a", Value()}}),
      array(kPropertyListMaximumDepth + 1), Value::dictionary({{"\xff", Value::boolean(true)}})};
  for (const char* bytes :
       {"\xff", "\xe2\x82", "\xc0\x80", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xf4\x90\x80\x80"})
    inNeither.push_back(Value::string(bytes));
  for (const double seconds : {std::nan(""), HUGE_VAL}) inNeither.push_back(Value::date(seconds));
  const Value kInBinary[] = {Value::string(std::string(1, '\0')),
                             Value::string("a\x1f"),
                             Value::string("\ufffe"),
                             Value::string("\uffff"),
                             Value::set({Value::string("a"), Value::string("b")}),
                             Value::date(-63113904001.0),
                             Value::date(252423993600.0),
                             Value::dictionary(keyed)};
  for (const Value& value : inNeither) {
    EXPECT_FALSE(writePropertyList(value, PropertyListFormat::kXML)) << &value - inNeither.data();
    EXPECT_FALSE(writePropertyList(value, PropertyListFormat::kBinary)) << description(value);
  }
  for (const Value& value : kInBinary) {
    EXPECT_FALSE(writePropertyList(value, PropertyListFormat::kXML)) << &value - kInBinary;
    const auto binary = writePropertyList(value, PropertyListFormat::kBinary);
    ASSERT_TRUE(binary) << &value - kInBinary;
    EXPECT_EQ(value, readPropertyList(*binary)) << &value - kInBinary;
  }
}

}  // namespace
}  // namespace pallion
