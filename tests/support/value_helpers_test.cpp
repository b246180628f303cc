#include "support/value_helpers.h"

#include <cmath>
#include <gtest/gtest.h>
#include <string>

#include "foundation/format.h"

namespace pallion::test {

using Class = Value::Class;

TEST(ValueHelpers, Stringify) {
  EXPECT_FALSE(PLStringifyObject({}));
  const Value text = Value::string("text");
  EXPECT_TRUE(PLStringifyObject(text).isIdenticalTo(text));
  const std::pair<Value, std::string> rows[] = {
      {Value::integer(-12), "-12"},
      {Value::unsignedInteger(UINT64_MAX), "18446744073709551615"},
      {Value::array({text, Value::integer(1)}), "(text, 1)"}};
  for (const auto& [value, expected] : rows)
    EXPECT_EQ(PLStringifyObject(value), Value::string(expected));
}

TEST(ValueHelpers, TruthIsThatOfNumbersOnly) {
  struct Row {
    Value value;
    bool truth;
  };
  const Row numbers[] = {{Value::boolean(true), true},
                         {Value::boolean(false), false},
                         {Value::integer(0), false},
                         {Value::integer(2), true},
                         {Value::integer(-1), true},
                         {Value::integer(int64_t{1} << 32), true},
                         {Value::unsignedInteger(uint64_t{1} << 63), true},
                         {Value::real(0.0), false},
                         {Value::real(-0.0), false},
                         {Value::real(0.25), true},
                         {Value::real(std::nan("")), true}};
  for (const bool otherwise : {true, false}) {
    for (const Row& row : numbers)
      EXPECT_EQ(PLBooleanValue(row.value, otherwise), row.truth) << description(row.value);
    for (const Value& value : {Value(), Value::string("YES"), Value::string("0"), Value::array({}),
                               Value::date(1), Value::data("\1")})
      EXPECT_EQ(PLBooleanValue(value, otherwise), otherwise) << description(value);
  }
}

TEST(ValueHelpers, Arrayify) {
  const Value text = Value::string("a");
  const Value number = Value::integer(1);
  const Value truth = Value::boolean(true);
  const Value texts = Value::array({text, Value::string("b")});
  const Value mixed = Value::array({text, number});
  const Value empty = Value::array({});
  struct Row {
    Value value;
    Class k;
    bool only;  // PLArrayContainsOnlyClass
    Value arrayified;
    bool identical;  // it is the very object
  };
  const Row rows[] = {
      {{}, Class::kString, true, {}, true},
      {texts, Class::kString, true, texts, true},
      {empty, Class::kNumber, true, empty, true},
      {mixed, Class::kString, false, {}, false},
      {texts, Class::kArray, false, {}, false},  // arrays are not wrapped
      {Value::array({number, truth}), Class::kNumber, true, Value::array({number, truth}), true},
      {Value::array({number, truth}), Class::kBoolean, false, {}, false},
      {text, Class::kString, false, Value::array({text}), false},
      {truth, Class::kNumber, false, Value::array({truth}), false},
      {number, Class::kBoolean, false, {}, false},
      {Value::set({text}), Class::kString, false, Value::array({text}), false},
      {Value::set({}), Class::kString, false, empty, false},
      {Value::set({text, number}), Class::kString, false, {}, false},
      {Value::set({text}), Class::kSet, false, Value::array({Value::set({text})}), false}};
  for (const Row& row : rows) {
    SCOPED_TRACE(description(row.value) + " as " + std::string(nameOfClass(row.k)));
    EXPECT_EQ(PLArrayContainsOnlyClass(row.value, row.k), row.only);
    const Value result = PLArrayifyThing(row.value, row.k);
    EXPECT_EQ(result, row.arrayified) << description(result);
    EXPECT_EQ(result.isIdenticalTo(row.value), row.identical);
  }
}

}  // namespace pallion::test
