#include <algorithm>
#include <ctime>
#include <gtest/gtest.h>
#include <random>

#include "foundation/format.h"
#include "foundation/value.h"

namespace pallion {
namespace {

// Against a plain list of pairs, through growth, removal and re-insertion of keys of every class.
TEST(Dictionary, AgreesWithAList) {
  const auto keyFor = [](uint64_t i) {
    const Value number = Value::unsignedInteger(i / 4);
    const Value keys[] = {Value::string(std::to_string(i / 4)), number,
                          Value::data(std::to_string(i / 4)), Value::array({number})};
    return keys[i % 4];
  };
  std::mt19937 random(7);
  Dictionary dictionary;
  std::vector<std::pair<Value, int64_t>> expected;
  for (int step = 0; step < 20000; ++step) {
    const Value key = keyFor(random() % 400);
    const auto at = std::find_if(expected.begin(), expected.end(),
                                 [&](const auto& each) { return each.first == key; });
    if (random() % 3 == 0) {
      EXPECT_EQ(at != expected.end(), dictionary.remove(key));
      if (at != expected.end()) expected.erase(at);
    } else {
      dictionary.set(key, Value::integer(step));
      at != expected.end() ? void(at->second = step) : void(expected.emplace_back(key, step));
    }
    if (step % 500 != 0) continue;
    ASSERT_EQ(expected.size(), dictionary.size());
    size_t i = 0;
    for (const auto& [name, value] : dictionary) {
      ASSERT_EQ(expected[i].first, name);
      ASSERT_EQ(expected[i].second, value.int64Value());
      ASSERT_EQ(expected[i++].second, dictionary.get(name).int64Value());
    }
  }
  dictionary.set(Value(), Value::integer(6));
  EXPECT_EQ(expected.size(), dictionary.size()) << "none is no key";
  for (uint64_t i = 0; i < 100000; ++i) dictionary.set(keyFor(i), Value::unsignedInteger(i));
  for (uint64_t i = 0; i < 100000; ++i) ASSERT_EQ(i, dictionary.get(keyFor(i)).uint64Value()) << i;
}

// Keys that are alike but for their innermost last member, each made of eight of the level below.
// Compared member by member the effort is 36 to the power of the levels.
TEST(Dictionary, NearlyEqualContainerKeysStayCheap) {
  const auto level = [](const auto& self, int depth, int salt) -> Value {
    if (depth == 0) return Value::integer(salt);
    Dictionary keys;
    for (int i = 0; i < 8; ++i)
      keys.set(self(self, depth - 1, i < 7 ? i : salt + 7), Value::boolean(true));
    return Value::dictionary(std::move(keys));
  };
  const std::clock_t start = std::clock();
  EXPECT_EQ(level(level, 4, 1), level(level, 4, 1));
  EXPECT_FALSE(level(level, 4, 1) == level(level, 4, 2));
  EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC);
}

TEST(Value, EqualValuesHashAlike) {
  const Value one = Value::integer(1);
  const Value two = Value::integer(2);
  const std::vector<Value> classes[] = {
      {Value()},
      {Value::string("1")},
      {Value::data("1")},
      {one, Value::real(1)},
      {Value::boolean(true)},
      {Value::date(1)},
      {Value::integer(0), Value::real(0), Value::real(-0.0)},
      {Value::boolean(false)},
      {Value::unsignedInteger(UINT64_MAX), Value::real(18446744073709551616.0)},
      {Value::integer(INT64_MAX), Value::real(9223372036854775808.0)},
      {Value::integer(-1)},
      {Value::array({}), Value::array({})},
      {Value::set({})},
      {Value::dictionary({})},
      {Value::array({one, two})},
      {Value::array({two, one})},
      {Value::set({one, two}), Value::set({Value::real(2), one, two})},
      {Value::dictionary({{"a", one}, {"b", two}}), Value::dictionary({{"b", two}, {"a", one}})}};
  for (const auto& these : classes) {
    for (const auto& those : classes) {
      for (const Value& a : these) {
        for (const Value& b : those) {
          EXPECT_EQ(a == b, &these == &those) << description(a) << " and " << description(b);
          EXPECT_TRUE(!(a == b) || a.hash() == b.hash()) << description(a);
        }
      }
    }
  }
}

TEST(Value, NumbersConvertAtTheirLimits) {
  constexpr uint64_t kHigh = uint64_t{1} << 63;
  const std::tuple<double, int64_t, uint64_t> kCases[] = {{-1.9, -1, UINT64_MAX},
                                                          {1e300, INT64_MAX, UINT64_MAX},
                                                          {-1e300, INT64_MIN, kHigh},
                                                          {9223372036854775808.0, INT64_MAX, kHigh},
                                                          {__builtin_nan(""), 0, 0}};
  for (const auto& [real, asSigned, asUnsigned] : kCases) {
    EXPECT_EQ(asSigned, Value::real(real).int64Value()) << real;
    EXPECT_EQ(asUnsigned, Value::real(real).uint64Value()) << real;
  }
}

}  // namespace
}  // namespace pallion
