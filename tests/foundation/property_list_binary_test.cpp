#include <gtest/gtest.h>
#include <numeric>
#include <random>
#include <vector>

#include "foundation/format.h"
#include "foundation/property_list.h"

// Byte strings as the format defines them, so that reader and writer can't share a mistake.

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
  const struct {
    std::string object;
    const char* description;
    Value::Class valueClass;
  } kCases[] = {
      {"\x08"s, "0", Value::Class::kBoolean},
      {"\x09"s, "1", Value::Class::kBoolean},
      {"\x10\xff"s, "255", Value::Class::kNumber},
      {"\x11\xff\xfe"s, "65534", Value::Class::kNumber},
      {"\x12\xff\xff\xff\xff"s, "4294967295", Value::Class::kNumber},
      {"\x13\xff\xff\xff\xff\xff\xff\xff\xfe"s, "-2", Value::Class::kNumber},
      {"\x14\0\0\0\0\0\0\0\0\xff\xff\xff\xff\xff\xff\xff\xff"s, "18446744073709551615",
       Value::Class::kNumber},
      {"\x14\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x07"s, "7", Value::Class::kNumber},
      {"\x14\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"s, "-1",
       Value::Class::kNumber},
      {"\x22\x3f\xc0\0\0"s, "1.5", Value::Class::kNumber},
      {"\x23\xbf\xf8\0\0\0\0\0\0"s, "-1.5", Value::Class::kNumber},
      {"\x33\0\0\0\0\0\0\0\0"s, "2001-01-01T00:00:00Z", Value::Class::kDate},
      {"\x33\x41\x97\xca\xd2\x00\x00\x00\x00"s, "2004-03-01T00:00:00Z", Value::Class::kDate},
      {"\x43\x01\xfe\x00"s, "<01fe00>", Value::Class::kData},
      {"\x40"s, "<>", Value::Class::kData},
      {"\x53"
       "abc"s,
       "abc", Value::Class::kString},
      {"\x5f\x10\x10"
       "0123456789abcdef"s,
       "0123456789abcdef", Value::Class::kString},
      {"\x5f\x13\0\0\0\0\0\0\0\x01z"s, "z", Value::Class::kString},
      {"\x63\x20\xac\xd8\x3d\xde\x00"s, "\u20ac\U0001f600", Value::Class::kString},
      {"\x80\x05"s, "5", Value::Class::kNumber},
      {"\x87\xff\xff\xff\xff\xff\xff\xff\xff"s, "18446744073709551615", Value::Class::kNumber},
      {"\xa0"s, "()", Value::Class::kArray},
      {"\xc0"s, "()", Value::Class::kSet},
      {"\xd0"s, "{}", Value::Class::kDictionary},
  };
  for (const auto& test : kCases) {
    const Value value = readPropertyList(list({test.object}));
    EXPECT_EQ(test.valueClass, value.valueClass()) << test.description;
    EXPECT_EQ(test.description, description(value));
  }
}

TEST(BinaryPropertyList, FollowsReferencesOfEverySize) {
  for (size_t size = 1; size <= 8; ++size) {
    const std::string zero = bigEndian(0, size);
    const std::string two = bigEndian(2, size);
    const std::vector<std::string> objects = {"\x51k"s, "\xd1"s + zero + two, "\xa2"s + zero + zero,
                                              "\x51u"s};
    const Value value = readPropertyList(list(objects, {size, size, 1}));
    EXPECT_EQ("{k = (k, k)}", description(value)) << size;
    const Value::Array* members = value.asDictionary()->get("k").asArray();
    EXPECT_TRUE(members->at(0).isIdenticalTo(members->at(1)));
  }
}

TEST(BinaryPropertyList, WritesTheseBytes) {
  const Value value = Value::dictionary(
      {{"a", Value::array({Value::boolean(true), Value::integer(256), Value::string("a")})},
       {"\u00e9", Value::unsignedInteger(UINT64_MAX)}});
  const std::string expected =
      "bplist00"
      "\xd2\x01\x05\x02\x06"  // 8: two keys, two values
      "\x51"
      "a"                                                     // 13
      "\xa3\x03\x04\x01"                                      // 15: the text in it is the key again
      "\x09"                                                  // 19
      "\x11\x01\x00"                                          // 20
      "\x61\x00\xe9"                                          // 23
      "\x14\0\0\0\0\0\0\0\0\xff\xff\xff\xff\xff\xff\xff\xff"  // 26
      "\x08\x0d\x0f\x13\x14\x17\x1a"
      "\0\0\0\0\0\0\x01\x01"
      "\0\0\0\0\0\0\0\x07"
      "\0\0\0\0\0\0\0\0"
      "\0\0\0\0\0\0\0\x2b"s;
  EXPECT_EQ(expected, writePropertyList(value, PropertyListFormat::kBinary));
}

TEST(BinaryPropertyList, RefusesDamagedObjects) {
  const struct {
    const char* name;
    std::vector<std::string> objects;
  } kCases[] = {
      {"null", {"\x00"s}},
      {"null in an array", {"\xa1\x01"s, "\x00"s}},
      {"null as a key", {"\xd1\x01\x02"s, "\x00"s, "\x08"s}},
      {"null as a value",
       {"\xd1\x01\x02"s,
        "\x51"
        "a",
        "\x00"s}},
      {"unknown simple", {"\x0f"s}},
      {"unknown type 7",
       {"\x71"
        "a"}},
      {"unknown type 9", {"\x90\x01"s}},
      {"unknown type B", {"\xb0"s}},
      {"unknown type E", {"\xe0"s}},
      {"unknown type F", {"\xf0"s}},
      {"integer of 32 bytes", {"\x15"s + std::string(32, '\0')}},
      {"integer beyond 64 bits", {"\x14\0\0\0\0\0\0\0\x01\0\0\0\0\0\0\0\0"s}},
      {"negative integer beyond 64 bits",
       {"\x14\xff\xff\xff\xff\xff\xff\xff\xff\x7f\xff\xff\xff\xff\xff\xff\xff"s}},
      {"real of two bytes", {"\x21\0\0"s}},
      {"date that is not a number", {"\x33\x7f\xf8\0\0\0\0\0\0"s}},
      {"date of four bytes", {"\x32\0\0\0\0"s}},
      {"ASCII that is none", {"\x51\xe9"s}},
      {"high surrogate at the end", {"\x61\xd8\x3d"s}},
      {"high surrogate before a letter", {"\x62\xd8\x3d\0a"s}},
      {"low surrogate", {"\x61\xde\0"s}},
      {"text beyond the objects",
       {"\x59"
        "abc"}},
      {"count of 2^60",
       {"\x5f\x13\x10\0\0\0\0\0\0\0"
        "abc"s}},
      {"array of 2^60", {"\xaf\x13\x10\0\0\0\0\0\0\0\0\0"s}},
      {"dictionary of 2^63", {"\xdf\x13\x80\0\0\0\0\0\0\0\0\0"s}},
      {"UTF-16 of 2^63", {"\x6f\x13\x80\0\0\0\0\0\0\0\0\0"s}},
      {"negative count", {"\x4f\x13\xff\xff\xff\xff\xff\xff\xff\xff\0"s}},
      {"count that is no integer",
       {"\x5f\x51"
        "a"}},
      {"reference beyond the objects", {"\xa1\x05"s}},
      {"cycle of one", {"\xa1\x00"s}},
      {"cycle of two", {"\xa1\x01"s, "\xa1\x00"s}},
      {"cycle through a key", {"\xd1\x00\x01"s, "\x08"s}},
      {"cycle through a value",
       {"\xd1\x01\x00"s,
        "\x51"
        "a"}},
      {"cycle through a set", {"\xa1\x01"s, "\xc1\x00"s}},
  };
  for (const auto& test : kCases) EXPECT_FALSE(readPropertyList(list(test.objects))) << test.name;
}

TEST(BinaryPropertyList, RefusesDamagedTrailers) {
  const std::string good =
      list({"\x51"
            "a"});
  ASSERT_TRUE(readPropertyList(good));
  const size_t trailer = good.size() - 32;
  const struct {
    const char* name;
    size_t at;
    std::string bytes;
  } kCases[] = {
      {"offset size 0", 6, "\x00"s},
      {"offset size 9", 6, "\x09"s},
      {"reference size 0", 7, "\x00"s},
      {"reference size 9", 7, "\x09"s},
      {"no objects", 8, bigEndian(0, 8)},
      {"more objects than offsets", 8, bigEndian(2, 8)},
      {"2^60 objects", 8, bigEndian(uint64_t{1} << 60, 8)},
      {"root beyond the objects", 16, bigEndian(1, 8)},
      {"table in the magic", 24, bigEndian(7, 8)},
      {"table at the trailer", 24, bigEndian(trailer, 8)},
      {"table far beyond", 24, bigEndian(UINT64_MAX, 8)},
  };
  for (const auto& test : kCases) {
    std::string bytes = good;
    bytes.replace(trailer + test.at, test.bytes.size(), test.bytes);
    EXPECT_FALSE(readPropertyList(bytes)) << test.name;
  }
  std::string inMagic =
      list({"\x59"
            "abcdefghi"});
  ASSERT_TRUE(readPropertyList(inMagic));
  inMagic[inMagic.size() - 33] =
      0;  // the object's offset; "bplis" reads as a text of two characters
  EXPECT_FALSE(readPropertyList(inMagic));
  EXPECT_FALSE(readPropertyList("bplist00"));
  std::string crowded = list({"\x08"});
  crowded.insert(crowded.size() - 32, 2, '\x08');
  ASSERT_TRUE(readPropertyList(crowded));
  crowded[crowded.size() - 17] = 3;
  EXPECT_FALSE(readPropertyList(crowded)) << "more objects than bytes";
}

// Of the object at `index`, by references of two bytes.
std::string array(uint64_t index) { return std::string("\xa1").append(bigEndian(index, 2)); }

// `levels` arrays, each of which holds the next one `width` times; the last one is empty.
std::string nested(size_t levels, size_t width) {
  std::vector<std::string> objects;
  for (size_t i = 1; i < levels; ++i) {
    std::string object(1, static_cast<char>(0xA0 + width));
    for (size_t k = 0; k < width; ++k) object += bigEndian(i, 3);
    objects.push_back(object);
  }
  objects.emplace_back("\xa0");
  return list(objects, {4, 3, 0});
}

TEST(BinaryPropertyList, BoundsDepthAndUnfolding) {
  EXPECT_TRUE(readPropertyList(nested(512, 1)));
  EXPECT_FALSE(readPropertyList(nested(513, 1)));
  EXPECT_FALSE(readPropertyList(nested(500000, 1)));
  EXPECT_TRUE(readPropertyList(nested(16, 2)));
  EXPECT_FALSE(readPropertyList(nested(60, 2)));
  // A deep part that was first met near the root: 400 arrays, then the same below 200 more.
  std::vector<std::string> objects = {"\xa2"s + bigEndian(1, 2) + bigEndian(401, 2)};
  for (uint64_t i = 1; i < 400; ++i) objects.push_back(array(i + 1));
  objects.emplace_back("\xa0");
  for (uint64_t i = 401; i < 600; ++i) objects.push_back(array(i + 1));
  objects.push_back(array(1));
  EXPECT_FALSE(readPropertyList(list(objects, {4, 2, 0})));
  // A long text in many places.
  const std::string text = "\x5f\x12"s + bigEndian(100000, 4) + std::string(100000, 'x');
  const auto repeated = [&text](size_t times) {
    return list({"\xaf\x12"s + bigEndian(times, 4) + std::string(times, '\1'), text}, {4, 1, 0});
  };
  EXPECT_TRUE(readPropertyList(repeated(15)));
  EXPECT_FALSE(readPropertyList(repeated(20000)));
  // Many indexes of one and the same bytes.
  std::string overlapping = list({"\xa2\x01\x02",
                                  "\x53"
                                  "abc",
                                  "\x53"
                                  "abc"});
  ASSERT_TRUE(readPropertyList(overlapping));
  overlapping[overlapping.size() - 33] = overlapping[overlapping.size() - 34];
  EXPECT_TRUE(readPropertyList(overlapping)) << "one object's bytes less are used";
  overlapping = list({"\xa3\x01\x02\x03",
                      "\x58"
                      "abcdefgh",
                      "\x40", "\x40"});
  overlapping[overlapping.size() - 33] = overlapping[overlapping.size() - 35];
  EXPECT_FALSE(readPropertyList(overlapping)) << "more bytes than there are";
}

TEST(BinaryPropertyList, SurvivesEveryTruncationAndFlip) {
  Dictionary groups;
  for (int i = 0; i < 6; ++i) {
    groups.set("group." + std::to_string(i),
               Value::dictionary({{"Container", Value::string("/p\u00e9/" + std::to_string(i))},
                                  {"Numbers", Value::set({Value::real(i), Value::integer(i)})},
                                  {"Data", Value::data("\x01\x02")}}));
  }
  const std::string good =
      *writePropertyList(Value::dictionary(groups), PropertyListFormat::kBinary);
  for (size_t size = 0; size < good.size(); ++size) {
    // On the heap and of exactly this size, so that a sanitizer sees each byte read beyond it.
    const std::vector<char> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_FALSE(readPropertyList(std::string_view(cut.data(), cut.size()))) << size;
  }
  std::mt19937 random(1);
  size_t read = 0;
  for (size_t bit = 0; bit < good.size() * 8; ++bit) {
    std::vector<char> flipped(good.begin(), good.end());
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
    for (size_t more = bit % 4; more > 0; --more)
      flipped[random() % flipped.size()] = static_cast<char>(random());
    const Value value = readPropertyList(std::string_view(flipped.data(), flipped.size()));
    if (value && writePropertyList(value, PropertyListFormat::kBinary)) ++read;
  }
  EXPECT_GT(read, 0U);
}

}  // namespace
}  // namespace pallion
