#include <chrono>
#include <functional>
#include <gtest/gtest.h>

#include "foundation/property_list.h"
#include "tests/helpers/allocation_meter/allocation_meter.h"

// What hostile lists cost, whether they are refused or read.

namespace pallion {
namespace {

using namespace std::string_literals;

std::string repeated(const std::string& text, size_t times) {
  std::string out;
  out.reserve(text.size() * times);
  for (size_t i = 0; i < times; ++i) out += text;
  return out;
}

std::string bigEndian(uint64_t number, size_t size) {
  std::string bytes;
  while (size-- > 0) bytes += static_cast<char>(number >> (8 * size));
  return bytes;
}

// `count` objects that `object` gives, with offsets and references of four bytes.
std::string binary(size_t count, const std::function<std::string(size_t)>& object) {
  std::string bytes = "bplist00";
  std::string offsets;
  for (size_t i = 0; i < count; ++i) {
    offsets += bigEndian(bytes.size(), 4);
    bytes += object(i);
  }
  const size_t table = bytes.size();
  return bytes + offsets + "\0\0\0\0\0\0\4\4"s + bigEndian(count, 8) + bigEndian(0, 8) +
         bigEndian(table, 8);
}

std::string array(std::initializer_list<uint64_t> members) {
  std::string object(1, static_cast<char>(0xA0 + members.size()));
  for (const uint64_t member : members) object += bigEndian(member, 4);
  return object;
}

// One array of `count` objects, all alike.
std::string wide(size_t count, const std::string& object) {
  return binary(count + 1, [&](size_t i) {
    if (i > 0) return object;
    std::string members = "\xaf\x12"s + bigEndian(count, 4);
    for (uint64_t k = 1; k <= count; ++k) members += bigEndian(k, 4);
    return members;
  });
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
  const struct {
    const char* name;
    std::string bytes;
    bool readable;
  } kCases[] = {
      {"deep XML",
       "<plist>" + repeated("<array>", kDeep) + repeated("</array>", kDeep) + "</plist>", false},
      {"deep XML without an end", "<plist>" + repeated("<dict><key>k</key>", kDeep), false},
      {"deep binary", binary(kDeep, [](size_t i) { return array({i + 1}); }), false},
      {"a cycle of one", binary(1, [](size_t) { return array({0}); }), false},
      {"a cycle of two", binary(2, [](size_t i) { return array({1 - i}); }), false},
      {"2^60 members", binary(1, [](size_t) { return "\xaf\x13\x10\0\0\0\0\0\0\0"s; }), false},
      {"2^60 bytes", binary(1, [](size_t) { return "\x4f\x13\x10\0\0\0\0\0\0\0"s; }), false},
      {"unfolds to 2^60",
       binary(61,
              [](size_t i) {
                return i < 60 ? array({i + 1, i + 1}) : array({});
              }),
       false},
      {"entities within entities", entities(), false},
      {"XML of empty dictionaries",
       "<plist><array>" + repeated("<dict/>", kMany) + "</array></plist>", true},
      {"XML of empty arrays", "<plist><array>" + repeated("<array/>", kMany) + "</array></plist>",
       true},
      {"XML of truths", "<plist><array>" + repeated("<true/>", kMany) + "</array></plist>", true},
      {"binary of empty dictionaries", wide(kMany, "\xd0"), true},
      {"binary of empty texts", wide(kMany, "\x50"), true},
  };
  for (const auto& test : kCases) {
    const size_t limit = 64 * test.bytes.size() + (size_t{1} << 20);
    const auto start = std::chrono::steady_clock::now();
    {
      const test::AllocationMeter meter;
      Value value = readPropertyList(test.bytes);
      EXPECT_EQ(test.readable, static_cast<bool>(value)) << test.name;
      EXPECT_GT(meter.peak(), 0U) << test.name;
      value = {};
      EXPECT_LE(meter.peak(), limit) << test.name;
    }
    [[maybe_unused]] const auto took = std::chrono::steady_clock::now() - start;
#ifdef NDEBUG  // time means something only where the compiler has optimised
    if (!test.readable) {
      EXPECT_LT(took, std::chrono::milliseconds(50)) << test.name;
    }
#endif
    RecordProperty(test.name, std::to_string(took / std::chrono::microseconds(1)) + " us");
  }
}

}  // namespace
}  // namespace pallion
