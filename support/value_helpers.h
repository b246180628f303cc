#pragma once

#include "foundation/export.h"
#include "foundation/value.h"

// Loose values in the shape that a caller wants. All functions may be called from any thread;
// results may be the very object that was passed in.

namespace pallion {

// None for none, the same object for a string, and otherwise a new string with the value's
// description, as "%@" prints it.
PL_EXPORT Value PLStringifyObject(const Value& value);

// True when every member of the array is of class `k`; so for an empty array and for none. False
// for what is no array.
PL_EXPORT bool PLArrayContainsOnlyClass(const Value& array, Value::Class k);

// The truth of a number (false for zero only); `defaultValue` for anything else.
PL_EXPORT bool PLBooleanValue(const Value& value, bool defaultValue);

// An array of members of class `k`: the same object for an array that holds nothing else, a new one
// of one member for a value of that class, a new one of a set's members; none otherwise.
PL_EXPORT Value PLArrayifyThing(const Value& value, Value::Class k);

}  // namespace pallion
