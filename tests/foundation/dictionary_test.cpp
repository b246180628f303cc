#include <ctime>
#include <gtest/gtest.h>
#include <random>

#include "foundation/format.h"
#include "foundation/value.h"

namespace pallion {
namespace {

TEST(Dictionary, KeepsOrderThroughReplacementAndRemoval) {
  Dictionary dictionary{
      {"b", Value::integer(1)}, {"a", Value::integer(2)}, {"c", Value::integer(3)}};
  dictionary.set("a", Value::integer(4));
  EXPECT_EQ("{b = 1; a = 4; c = 3}", description(dictionary));
  EXPECT_TRUE(dictionary.remove("b"));
  EXPECT_FALSE(dictionary.remove("b"));
  dictionary.set("b", Value::integer(5));
  EXPECT_EQ("{a = 4; c = 3; b = 5}", description(dictionary));
  EXPECT_EQ(3U, dictionary.size());
  dictionary.set(Value(), Value::integer(6));
  EXPECT_EQ(3U, dictionary.size()) << "none is no key";
}

// Against a plain list of pairs, through growth, removal and re-insertion.
TEST(Dictionary, AgreesWithAList) {
  std::mt19937 random(7);
  Dictionary dictionary;
  std::vector<std::pair<std::string, int64_t>> expected;
  for (int step = 0; step < 20000; ++step) {
    const std::string key = std::to_string(random() % 300);
    const auto at = std::find_if(expected.begin(), expected.end(),
                                 [&](const auto& e) { return e.first == key; });
    if (random() % 3 == 0) {
      EXPECT_EQ(at != expected.end(), dictionary.remove(key));
      if (at != expected.end()) expected.erase(at);
    } else {
      dictionary.set(key, Value::integer(step));
      if (at != expected.end()) {
        at->second = step;
      } else {
        expected.emplace_back(key, step);
      }
    }
    if (step % 500 != 0) continue;
    ASSERT_EQ(expected.size(), dictionary.size());
    size_t i = 0;
    for (const auto& [name, value] : dictionary) {
      ASSERT_EQ(expected[i].first, *name.asString());
      ASSERT_EQ(expected[i].second, dictionary.get(expected[i].first).int64Value());
      ++i;
    }
    ASSERT_EQ(expected.size(), i);
  }
}

TEST(Dictionary, FindsManyKeysOfEveryClass) {
  constexpr int kKeys = 100000;
  const auto keyFor = [](int i) {
    switch (i % 4) {
      case 0:
        return Value::string(std::to_string(i));
      case 1:
        return Value::integer(i);
      case 2:
        return Value::data(std::to_string(i));
      default:
        return Value::array({Value::integer(i), Value::string("x")});
    }
  };
  for (const int count : {3, kKeys}) {
    Dictionary dictionary;
    for (int i = 0; i < count; ++i) dictionary.set(keyFor(i), Value::integer(i));
    for (int i = 0; i < count; ++i) ASSERT_EQ(i, dictionary.get(keyFor(i)).int64Value()) << i;
    EXPECT_FALSE(dictionary.get(Value::string("1"))) << "a text is not the number";
    EXPECT_FALSE(dictionary.get(Value::data("0"))) << "data is not the text";
    EXPECT_FALSE(dictionary.get("nothing"));
  }
}

TEST(Dictionary, ComparesWithoutOrder) {
  const Dictionary a{{"x", Value::integer(1)}, {"y", Value::array({Value::real(2)})}};
  EXPECT_EQ(a, (Dictionary{{"y", Value::array({Value::integer(2)})}, {"x", Value::real(1)}}));
  EXPECT_FALSE(a == (Dictionary{{"x", Value::integer(1)}}));
  EXPECT_FALSE(a == (Dictionary{{"x", Value::integer(1)}, {"z", Value::array({Value::real(2)})}}));
  EXPECT_FALSE(a ==
               (Dictionary{{"x", Value::boolean(true)}, {"y", Value::array({Value::real(2)})}}));
  const Dictionary none{{"x", Value()}};
  EXPECT_EQ(none, Dictionary(none));
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
  const Value values[] = {
      Value(),
      Value::string("1"),
      Value::data("1"),
      Value::integer(1),
      Value::real(1),
      Value::boolean(true),
      Value::date(1),
      Value::real(0),
      Value::real(-0.0),
      Value::integer(0),
      Value::boolean(false),
      Value::unsignedInteger(UINT64_MAX),
      Value::integer(-1),
      Value::real(18446744073709551616.0),
      Value::real(9223372036854775808.0),
      Value::integer(INT64_MAX),
      Value::array({}),
      Value::set({}),
      Value::dictionary({}),
      Value::array({Value::integer(1)}),
      Value::set({Value::integer(1)}),
      Value::set({Value::integer(1), Value::integer(2)}),
      Value::set({Value::real(2), Value::integer(1), Value::integer(2)}),
      Value::array({Value::integer(2), Value::integer(1)}),
      Value::array({Value::integer(1), Value::integer(2)}),
      Value::dictionary({{"a", Value::integer(1)}, {"b", Value::integer(2)}}),
      Value::dictionary({{"b", Value::real(2)}, {"a", Value::integer(1)}}),
      Value::dictionary({{"a", Value::integer(2)}, {"b", Value::integer(1)}}),
  };
  size_t equal = 0;
  for (const Value& a : values) {
    for (const Value& b : values) {
      EXPECT_EQ(a == b, b == a);
      if (!(a == b)) continue;
      ++equal;
      EXPECT_EQ(a.hash(), b.hash()) << description(a) << " and " << description(b);
    }
  }
  // Each with itself; 1 = 1.0; 0.0 = -0.0 = 0; UINT64_MAX = 2^64 and INT64_MAX = 2^63 as doubles;
  // two sets; two dictionaries.
  EXPECT_EQ(std::size(values) + 2 * (1 + 3 + 1 + 1 + 1 + 1), equal);
}

TEST(Value, NumbersConvertAtTheirLimits) {
  const struct {
    Value value;
    int64_t asSigned;
    uint64_t asUnsigned;
  } kCases[] = {
      {Value::real(1.9), 1, 1},
      {Value::real(-1.9), -1, UINT64_MAX},
      {Value::real(1e300), INT64_MAX, UINT64_MAX},
      {Value::real(-1e300), INT64_MIN, uint64_t{1} << 63},
      {Value::real(9223372036854775808.0), INT64_MAX, uint64_t{1} << 63},
      {Value::real(__builtin_nan("")), 0, 0},
      {Value::unsignedInteger(UINT64_MAX), -1, UINT64_MAX},
      {Value::integer(INT64_MIN), INT64_MIN, uint64_t{1} << 63},
      {Value::boolean(true), 1, 1},
      {Value::string("5"), 0, 0},
      {Value(), 0, 0},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(test.asSigned, test.value.int64Value()) << description(test.value);
    EXPECT_EQ(test.asUnsigned, test.value.uint64Value()) << description(test.value);
  }
  EXPECT_TRUE(Value::boolean(true).isKindOfClass(Value::Class::kNumber));
  EXPECT_FALSE(Value::integer(1).isKindOfClass(Value::Class::kBoolean));
  EXPECT_FALSE(Value().isKindOfClass(Value::Class::kNone));
}

}  // namespace
}  // namespace pallion
