#include "support/value_helpers.h"

#include <cmath>
#include <gtest/gtest.h>

#include "foundation/format.h"

namespace pallion::test {

using Class = Value::Class;

TEST(ValueHelpers, TruthAndTextOfAnyValue) {
  const Value text = Value::string("text");
  EXPECT_FALSE(PLStringifyObject({}));
  EXPECT_TRUE(PLStringifyObject(text).isIdenticalTo(text));
  EXPECT_EQ(PLStringifyObject(Value::array({text, Value::integer(1)})), Value::string("(text, 1)"));
  for (const bool otherwise : {true, false}) {
    for (const Value& value :
         {Value::boolean(true), Value::integer(-1), Value::integer(int64_t{1} << 32),
          Value::unsignedInteger(uint64_t{1} << 63), Value::real(0.25), Value::real(std::nan(""))})
      EXPECT_TRUE(PLBooleanValue(value, otherwise)) << description(value);
    for (const Value& value : {Value::boolean(false), Value::integer(0), Value::real(-0.0)})
      EXPECT_FALSE(PLBooleanValue(value, otherwise)) << description(value);
    for (const Value& value : {Value(), Value::string("YES"), Value::array({}), Value::date(1)})
      EXPECT_EQ(PLBooleanValue(value, otherwise), otherwise) << description(value);
  }
}

TEST(ValueHelpers, Arrayify) {
  const Value text = Value::string("a");
  const Value truth = Value::boolean(true);
  const Value texts = Value::array({text, Value::string("b")});
  const Value numbers = Value::array({Value::integer(1), truth});
  const struct {
    Value value;
    Class k;
    bool only;  // PLArrayContainsOnlyClass
    Value arrayified;
    bool identical;  // it is the very object
  } rows[] = {{{}, Class::kString, true, {}, true},
              {texts, Class::kString, true, texts, true},
              {texts, Class::kArray, false, {}, false},  // arrays are not wrapped
              {numbers, Class::kNumber, true, numbers, true},
              {numbers, Class::kBoolean, false, {}, false},
              {truth, Class::kNumber, false, Value::array({truth}), false},
              {text, Class::kBoolean, false, {}, false},
              {Value::set({text}), Class::kString, false, Value::array({text}), false},
              {Value::set({text, truth}), Class::kString, false, {}, false}};
  for (const auto& row : rows) {
    EXPECT_EQ(PLArrayContainsOnlyClass(row.value, row.k), row.only) << description(row.value);
    const Value result = PLArrayifyThing(row.value, row.k);
    EXPECT_EQ(result, row.arrayified) << description(row.value) << description(result);
    EXPECT_EQ(result.isIdenticalTo(row.value), row.identical) << description(row.value);
  }
}

}  // namespace pallion::test
