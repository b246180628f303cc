#include <cmath>
#include <gtest/gtest.h>
#include <limits>

#include "foundation/property_list.h"

namespace pallion {
namespace {

// Equality that also tells 1 from 1.0, 0.0 from -0.0, and knows NaN.
bool same(const Value& a, const Value& b) {
  if (a.valueClass() != b.valueClass()) return false;
  if (a.asArray())
    return std::equal(a.asArray()->begin(), a.asArray()->end(), b.asArray()->begin(),
                      b.asArray()->end(), same);
  if (a.asDictionary()) {
    auto other = b.asDictionary()->begin();
    for (const auto& [key, value] : *a.asDictionary()) {
      if (other == b.asDictionary()->end() || !same(key, other->first) ||
          !same(value, other->second))
        return false;
      ++other;
    }
    return other == b.asDictionary()->end();
  }
  if (!a.isReal() || !b.isReal()) return a == b && a.isReal() == b.isReal();
  const double x = a.doubleValue();
  const double y = b.doubleValue();
  return std::isnan(x) ? std::isnan(y) : x == y && std::signbit(x) == std::signbit(y);
}

Value array(int depth) {
  Value value = Value::array({});
  for (int i = 1; i < depth; ++i) value = Value::array({value});
  return value;
}

TEST(PropertyListRoundTrip, KeepsEveryClassAndEdge) {
  const double inf = std::numeric_limits<double>::infinity();
  const std::string allBytes = [] {
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    return bytes;
  }();
  Dictionary many;
  for (int i = 0; i < 70000; ++i) many.set("key " + std::to_string(i), Value::integer(i));
  const Value shared = Value::dictionary({{"Container", Value::string("/x")}});
  const struct {
    const char* name;
    Value value;
  } kCases[] = {
      {"empty string", Value::string("")},
      {"14 and 15 bytes",
       Value::array({Value::string("12345678901234"), Value::string("123456789012345")})},
      {"white space", Value::string(" \t\n a \r\n b\r")},
      {"markup", Value::string("<a href=\"x\">&amp;]]></a>'")},
      {"two to four bytes a character",
       Value::string("\u00e9\u0800\u20ac\ufffd\U00010000\U0001f600\U0010ffff\u007f\u0085")},
      {"long string", Value::string(std::string(300000, 'x') + "\u00e9")},
      {"INT64_MIN", Value::integer(INT64_MIN)},
      {"INT64_MAX", Value::integer(INT64_MAX)},
      {"UINT64_MAX", Value::unsignedInteger(UINT64_MAX)},
      {"2^63", Value::unsignedInteger(uint64_t{1} << 63)},
      {"around the widths",
       Value::array({Value::integer(-1), Value::integer(0), Value::integer(255),
                     Value::integer(256), Value::integer(65535), Value::integer(65536),
                     Value::integer(4294967295), Value::integer(4294967296),
                     Value::integer(-129)})},
      {"one as three classes",
       Value::array({Value::integer(1), Value::real(1), Value::boolean(true)})},
      {"zeros",
       Value::array({Value::integer(0), Value::real(0), Value::real(-0.0), Value::boolean(false)})},
      {"reals", Value::array({Value::real(0.1), Value::real(5e-324),
                              Value::real(1.7976931348623157e308), Value::real(inf),
                              Value::real(-inf), Value::real(std::nan("")), Value::real(1e22)})},
      {"data", Value::array({Value::data(""), Value::data("a"), Value::data("ab"),
                             Value::data("abc"), Value::data(allBytes)})},
      {"dates",
       Value::array({Value::date(0), Value::date(-63113904000.0), Value::date(252423993599.0),
                     Value::date(-1), Value::date(99792000)})},
      {"empty containers", Value::array({Value::array({}), Value::dictionary({})})},
      {"empty key", Value::dictionary({{"", Value::string("x")}})},
      {"many keys", Value::dictionary(many)},
      {"a shared object", Value::array({shared, shared, shared})},
      {"a long text in many places",
       Value::array(Value::Array(1000, Value::string(std::string(5000, 'x'))))},
      {"deepest", array(kPropertyListMaximumDepth)},
  };
  for (const auto& test : kCases) {
    for (const PropertyListFormat format :
         {PropertyListFormat::kXML, PropertyListFormat::kBinary}) {
      const std::optional<std::string> bytes = writePropertyList(test.value, format);
      ASSERT_TRUE(bytes) << test.name;
      EXPECT_TRUE(same(readPropertyList(*bytes), test.value))
          << test.name << " in format " << static_cast<int>(format);
    }
  }
}

TEST(PropertyListRoundTrip, WritesOnlyWhatCanBeReadBack) {
  constexpr bool kNo = false;
  const struct {
    const char* name;
    Value value;
    bool inXML;
    bool inBinary;
  } kCases[] = {
      {"none", Value(), kNo, kNo},
      {"none in an array", Value::array({Value()}), kNo, kNo},
      {"none in a dictionary", Value::dictionary({{"a", Value()}}), kNo, kNo},
      {"too deep", array(kPropertyListMaximumDepth + 1), kNo, kNo},
      {"not UTF-8", Value::string("\xff"), kNo, kNo},
      {"cut UTF-8", Value::string("\xe2\x82"), kNo, kNo},
      {"overlong", Value::string("\xc0\x80"), kNo, kNo},
      {"overlong, three bytes", Value::string("\xe0\x9f\xbf"), kNo, kNo},
      {"surrogate", Value::string("\xed\xa0\x80"), kNo, kNo},
      {"beyond Unicode", Value::string("\xf4\x90\x80\x80"), kNo, kNo},
      {"not UTF-8 in a key", Value::dictionary({{"\xff", Value::boolean(true)}}), kNo, kNo},
      {"date that is none", Value::date(std::nan("")), kNo, kNo},
      {"infinite date", Value::date(HUGE_VAL), kNo, kNo},
      {"NUL", Value::string(std::string(1, '\0')), kNo, true},
      {"control character", Value::string("a\x1f"), kNo, true},
      {"U+FFFE", Value::string("\ufffe"), kNo, true},
      {"U+FFFF", Value::string("\uffff"), kNo, true},
      {"set", Value::set({Value::string("a"), Value::string("b")}), kNo, true},
      {"year 0", Value::date(-63113904001.0), kNo, true},
      {"year 10000", Value::date(252423993600.0), kNo, true},
      {"fraction of a second", Value::date(0.5), true, true},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(test.inXML, writePropertyList(test.value, PropertyListFormat::kXML).has_value())
        << test.name;
    const auto binary = writePropertyList(test.value, PropertyListFormat::kBinary);
    EXPECT_EQ(test.inBinary, binary.has_value()) << test.name;
    if (binary) {
      EXPECT_EQ(test.value, readPropertyList(*binary)) << test.name;
    }
  }
  // Keys that are containers.
  Dictionary keyed;
  keyed.set(Value::array({Value::integer(1)}), Value::string("x"));
  EXPECT_FALSE(writePropertyList(Value::dictionary(keyed), PropertyListFormat::kXML));
  const auto bytes = writePropertyList(Value::dictionary(keyed), PropertyListFormat::kBinary);
  ASSERT_TRUE(bytes);
  EXPECT_EQ(Value::dictionary(keyed), readPropertyList(*bytes));
}

}  // namespace
}  // namespace pallion
