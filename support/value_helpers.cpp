#include "support/value_helpers.h"

#include <algorithm>

#include "foundation/format.h"

namespace pallion {

Value PLStringifyObject(const Value& value) {
  if (!value || value.asString()) return value;
  return Value::string(description(value));
}

bool PLArrayContainsOnlyClass(const Value& array, Value::Class k) {
  if (!array) return true;
  const Value::Array* members = array.asArray();
  return members && std::all_of(members->begin(), members->end(),
                                [k](const Value& member) { return member.isKindOfClass(k); });
}

bool PLBooleanValue(const Value& value, bool defaultValue) {
  if (!value.isKindOfClass(Value::Class::kNumber)) return defaultValue;
  return value.isReal() ? value.doubleValue() != 0 : value.int64Value() != 0;
}

Value PLArrayifyThing(const Value& value, Value::Class k) {
  if (value.asArray()) return PLArrayContainsOnlyClass(value, k) ? value : Value();
  if (value.isKindOfClass(k)) return Value::array({value});
  if (!value.asSet()) return {};
  Value members = Value::array(*value.asSet());
  return PLArrayContainsOnlyClass(members, k) ? members : Value();
}

}  // namespace pallion
