#include <ctime>
#include <gtest/gtest.h>

#include "foundation/format.h"
#include "foundation/property_list.h"
#include "tests/helpers/allocation_meter/allocation_meter.h"

// Byte strings as the format defines them, so that reader and writer can't share a mistake; and
// what hostile lists of both formats cost.

namespace pallion {
namespace {

using namespace std::string_literals;

std::string bigEndian(uint64_t number, size_t size) {
  std::string bytes;
  while (size-- > 0) bytes += static_cast<char>(number >> (8 * size));
  return bytes;
}

struct Layout {
  size_t offsetSize = 1;
  size_t referenceSize = 1;
  uint64_t root = 0;
};

std::string list(const std::vector<std::string>& objects, const Layout& layout = {}) {
  std::string bytes = "bplist00";
  std::string table;
  for (const std::string& object : objects) {
    table += bigEndian(bytes.size(), layout.offsetSize);
    bytes += object;
  }
  const size_t tableStart = bytes.size();
  bytes += table + std::string(6, '\0') + bigEndian(layout.offsetSize, 1) +
           bigEndian(layout.referenceSize, 1);
  return bytes + bigEndian(objects.size(), 8) + bigEndian(layout.root, 8) +
         bigEndian(tableStart, 8);
}

TEST(BinaryPropertyList, ReadsEveryKindOfObject) {
  using Class = Value::Class;
  const struct {
    std::string object;
    const char* description;
    Class valueClass;
  } kCases[] = {{"\x08", "0", Class::kBoolean},
                {"\x10\xff", "255", Class::kNumber},
                {"\x11\xff\xfe", "65534", Class::kNumber},
                {"\x12\xff\xff\xff\xff", "4294967295", Class::kNumber},
                {"\x13\xff\xff\xff\xff\xff\xff\xff\xfe", "-2", Class::kNumber},
                {"\x14"s + bigEndian(0, 8) + bigEndian(UINT64_MAX, 8), "18446744073709551615",
                 Class::kNumber},
                {"\x14"s + std::string(16, '\xff'), "-1", Class::kNumber},
                {"\x22\x3f\xc0\0\0"s, "1.5", Class::kNumber},
                {"\x23\xbf\xf8\0\0\0\0\0\0"s, "-1.5", Class::kNumber},
                {"\x33\x41\x97\xca\xd2\0\0\0\0"s, "2004-03-01T00:00:00Z", Class::kDate},
                {"\x43\x01\xfe\x00"s, "<01fe00>", Class::kData},
                {"\x53xyz", "xyz", Class::kString},
                {"\x5f\x10\x10xxxxxxxxxxxxxxxx", "xxxxxxxxxxxxxxxx", Class::kString},
                {"\x5f\x13\0\0\0\0\0\0\0\x01z"s, "z", Class::kString},
                {"\x63\x20\xac\xd8\x3d\xde\0"s, "\u20ac\U0001f600", Class::kString},
                {"\x80\x05", "5", Class::kNumber},
                {"\xa0", "()", Class::kArray},
                {"\xc0", "()", Class::kSet},
                {"\xd0", "{}", Class::kDictionary}};
  for (const auto& test : kCases) {
    const Value value = readPropertyList(list({test.object}));
    EXPECT_EQ(test.valueClass, value.valueClass()) << test.description;
    EXPECT_EQ(test.description, description(value));
  }
  for (size_t size = 1; size <= 8; ++size) {
    const std::string zero = bigEndian(0, size);
    const Value value = readPropertyList(list(
        {"\x51k"s, "\xd1" + zero + bigEndian(2, size), "\xa2" + zero + zero}, {size, size, 1}));
    EXPECT_EQ("{k = (k, k)}", description(value)) << size;
  }
}

TEST(BinaryPropertyList, WritesTheseBytes) {
  const Value value = Value::dictionary(
      {{"k", Value::array({Value::boolean(true), Value::integer(256), Value::string("k")})},
       {"\u00e9", Value::unsignedInteger(UINT64_MAX)}});
  const std::string expected =
      "bplist00\xd2\x01\x05\x02\x06"  // 8: two keys, two values
      "\x51k\xa3\x03\x04\x01"         // 13, 15: the text in the array is the key again
      "\x09\x11\x01\x00\x61\x00\xe9"  // 19, 20, 23
      "\x14\0\0\0\0\0\0\0\0\xff\xff\xff\xff\xff\xff\xff\xff\x08\x0d\x0f\x13\x14\x17\x1a"
      "\0\0\0\0\0\0\x01\x01\0\0\0\0\0\0\0\x07\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x2b"s;
  EXPECT_EQ(expected, writePropertyList(value, PropertyListFormat::kBinary));
}

TEST(BinaryPropertyList, RefusesDamage) {
  const std::string sixtyBits = bigEndian(uint64_t{1} << 60, 8);
  const std::string negative = bigEndian(uint64_t{1} << 63, 8);
  const std::pair<const char*, std::vector<std::string>> kObjects[] = {
      {"null", {"\x00"s}},
      {"null in an array", {"\xa1\x01", "\x00"s}},
      {"null as a value", {"\xd1\x01\x02", "\x51z", "\x00"s}},
      {"unknown type F", {"\xf0"}},
      {"integer of 32 bytes", {"\x15" + std::string(32, '\0')}},
      {"integer beyond 64 bits", {"\x14" + bigEndian(1, 8) + bigEndian(0, 8)}},
      {"negative beyond 64 bits", {"\x14" + bigEndian(UINT64_MAX, 8) + bigEndian(0, 8)}},
      {"real of two bytes", {"\x21\0\0"s}},
      {"date that is not a number", {"\x33\x7f\xf8\0\0\0\0\0\0"s}},
      {"ASCII that is none", {"\x51\xe9"}},
      {"high surrogate at the end", {"\x61\xd8\x3d"}},
      {"low surrogate", {"\x61\xde\0"s}},
      {"text beyond the objects", {"\x59xyz"}},
      {"count of 2^60", {"\x5f\x13" + sixtyBits + "xyz"}},
      {"array of 2^60", {"\xaf\x13" + sixtyBits}},
      {"dictionary of 2^63", {"\xdf\x13" + negative}},
      {"UTF-16 of 2^63", {"\x6f\x13" + negative}},
      {"negative count", {"\x4f\x13" + bigEndian(UINT64_MAX, 8)}},
      {"count that is no integer", {"\x5f\x51z"}},
      {"reference beyond the objects", {"\xa1\x05"}},
      {"cycle of one", {"\xa1\x00"s}},
      {"cycle of two", {"\xa1\x01", "\xa1\x00"s}},
      {"cycle through a key", {"\xd1\x00\x01"s, "\x08"}},
      {"cycle through a value", {"\xd1\x01\x00"s, "\x51z"}},
      {"cycle through a set", {"\xa1\x01", "\xc1\x00"s}}};
  for (const auto& [name, objects] : kObjects)
    EXPECT_FALSE(readPropertyList(list(objects))) << name;
  const std::string good = list({"\x51z"});
  ASSERT_TRUE(readPropertyList(good));
  const size_t trailer = good.size() - 32;
  const struct {
    const char* name;
    size_t at;
    std::string bytes;
  } kTrailers[] = {{"offset size 0", 6, "\x00"s},
                   {"offset size 9", 6, "\x09"},
                   {"reference size 0", 7, "\x00"s},
                   {"reference size 9", 7, "\x09"},
                   {"no objects", 8, bigEndian(0, 8)},
                   {"more objects than offsets", 8, bigEndian(2, 8)},
                   {"2^60 objects", 8, sixtyBits},
                   {"root beyond the objects", 16, bigEndian(1, 8)},
                   {"table in the magic", 24, bigEndian(7, 8)},
                   {"table at the trailer", 24, bigEndian(trailer, 8)},
                   {"table far beyond", 24, bigEndian(UINT64_MAX, 8)}};
  for (const auto& test : kTrailers) {
    std::string bytes = good;
    bytes.replace(trailer + test.at, test.bytes.size(), test.bytes);
    EXPECT_FALSE(readPropertyList(bytes)) << test.name;
  }
  std::string inMagic = list({"\x59xxxxxxxxx"});
  inMagic[inMagic.size() - 33] = 0;  // there "bplis" reads as a text of two characters
  EXPECT_FALSE(readPropertyList(inMagic));
  EXPECT_FALSE(readPropertyList("bplist00"));
}

std::string repeated(const std::string& text, size_t times) {
  std::string out;
  while (times-- > 0) out += text;
  return out;
}

// `levels` arrays, each of which holds the next one `width` times; the last one is empty.
std::string nested(size_t levels, size_t width) {
  std::vector<std::string> objects;
  for (size_t i = 1; i < levels; ++i)
    objects.push_back(static_cast<char>(0xA0 + width) + repeated(bigEndian(i, 3), width));
  objects.emplace_back("\xa0");
  return list(objects, {4, 3, 0});
}

// A deep part that was first met near the root: 400 arrays, then the same below 200 more.
std::string deepAgain() {
  std::vector<std::string> objects = {"\xa2" + bigEndian(1, 2) + bigEndian(401, 2)};
  for (uint64_t i = 2; i <= 400; ++i) objects.push_back("\xa1" + bigEndian(i, 2));
  objects.emplace_back("\xa0");
  for (uint64_t i = 402; i <= 600; ++i) objects.push_back("\xa1" + bigEndian(i, 2));
  objects.push_back("\xa1" + bigEndian(1, 2));
  return list(objects, {4, 2, 0});
}

// A text in many places.
std::string shared(size_t size, size_t times) {
  return list({"\xaf\x12" + bigEndian(times, 4) + std::string(times, '\1'),
               "\x5f\x12" + bigEndian(size, 4) + std::string(size, 'x')},
              {4, 1, 0});
}

// One array of `count` objects, all alike.
std::string wide(size_t count, const std::string& object) {
  std::vector<std::string> objects(count + 1, object);
  objects[0] = "\xaf\x12" + bigEndian(count, 4);
  for (uint64_t k = 1; k <= count; ++k) objects[0] += bigEndian(k, 4);
  return list(objects, {4, 4, 0});
}

// Indexes of one and the same bytes, which count more bytes than there are.
std::string overlapping() {
  std::string bytes = list({"\xa3\x01\x02\x03", "\x58xxxxxxxx", "\x40", "\x40"});
  bytes[bytes.size() - 33] = bytes[bytes.size() - 35];
  return bytes;
}

std::string entities() {
  std::string bytes = "<!DOCTYPE plist [<!ENTITY e0 \"aaaaaaaaaa\">";
  for (int i = 1; i < 10; ++i) {
    bytes += "<!ENTITY e" + std::to_string(i) + " \"" +
             repeated("&e" + std::to_string(i - 1) + ";", 10) + "\">";
  }
  return bytes + "]><plist><string>&e9;</string></plist>";
}

TEST(PropertyListCost, StaysInProportion) {
  constexpr size_t kDeep = 500000;
  constexpr size_t kMany = 100000;
  const auto inXML = [](const std::string& text) {
    return "<plist><array>" + repeated(text, kMany) + "</array></plist>";
  };
  const struct {
    const char* name;
    std::string bytes;
    bool readable;
  } kCases[] = {
      {"deep XML",
       "<plist>" + repeated("<array>", kDeep) + repeated("</array>", kDeep) + "</plist>", false},
      {"deep XML without an end", "<plist>" + repeated("<dict><key>k</key>", kDeep), false},
      {"deepest binary", nested(kPropertyListMaximumDepth, 1), true},
      {"too deep binary", nested(kPropertyListMaximumDepth + 1, 1), false},
      {"deep binary", nested(kDeep, 1), false},
      {"deep where it is met again", deepAgain(), false},
      {"unfolds to 2^15", nested(16, 2), true},
      {"unfolds to 2^60", nested(61, 2), false},
      {"long text in some places", shared(100000, 15), true},
      {"long text in many places", shared(100000, 20000), false},
      {"more bytes than there are", overlapping(), false},
      {"entities within entities", entities(), false},
      {"XML of empty dictionaries", inXML("<dict/>"), true},
      {"XML of truths", inXML("<true/>"), true},
      {"binary of empty dictionaries", wide(kMany, "\xd0"), true},
      {"binary of empty texts", wide(kMany, "\x50"), true}};
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.name);
    const std::clock_t start = std::clock();
    const test::AllocationMeter meter;
    Value value = readPropertyList(test.bytes);
    EXPECT_EQ(test.readable, static_cast<bool>(value));
    EXPECT_GT(meter.peak(), 0U);
    value = {};
    EXPECT_LE(meter.peak(), 64 * test.bytes.size() + (size_t{1} << 20));
#ifdef NDEBUG  // time means something only where the compiler has optimised
    if (!test.readable) {
      EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC / 20);
    }
#else
    static_cast<void>(start);
#endif
  }
}

TEST(BinaryPropertyList, SurvivesEveryTruncationAndFlip) {
  const Value members = Value::set({Value::real(1), Value::string("\u00e9"), Value::data("\x01")});
  const std::string good = *writePropertyList(
      Value::dictionary({{"a", members}, {"b", Value::array({members, Value::date(1)})}}),
      PropertyListFormat::kBinary);
  for (size_t size = 0; size < good.size(); ++size) {
    // On the heap and of exactly this size, so that a sanitizer sees each byte read beyond it.
    const std::vector<char> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_FALSE(readPropertyList(std::string_view(cut.data(), cut.size()))) << size;
  }
  for (size_t bit = 0; bit < good.size() * 8; ++bit) {
    std::vector<char> flipped(good.begin(), good.end());
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
    const Value value = readPropertyList(std::string_view(flipped.data(), flipped.size()));
    if (value) writePropertyList(value, PropertyListFormat::kBinary);
  }
}

}  // namespace
}  // namespace pallion
