#include "foundation/value.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <type_traits>
#include <utility>

#include "foundation/format.h"
#include "foundation/hash_key.h"

namespace pallion {

namespace {

// Containers keep their hash once somebody has asked for it; 0 until then.
template <class T>
struct Hashed {
  T members;
  mutable std::atomic<size_t> hash{0};
  explicit Hashed(T held) : members(std::move(held)) {}
};

// Folded 128-bit product: a small keyed mixer, so that keys chosen to collide do not.
uint64_t mix(uint64_t a, uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

uint64_t hashBytes(std::string_view bytes) {
  constexpr uint64_t kOdd = 0xA0761D6478BD642F;
  const uint64_t key = hashKey();
  uint64_t hash = key ^ (bytes.size() * kOdd);
  while (bytes.size() >= sizeof(uint64_t)) {
    uint64_t word = 0;
    std::memcpy(&word, bytes.data(), sizeof word);
    hash = mix(hash ^ word, kOdd ^ key);
    bytes.remove_prefix(sizeof word);
  }
  uint64_t rest = 0;
  if (!bytes.empty())
    std::memcpy(&rest, bytes.data(), bytes.size());  // the data of an empty view may be null
  return mix(hash ^ rest, kOdd);
}

uint64_t hashNumber(double number) {
  if (number == 0) number = 0;  // -0.0 equals 0.0
  if (std::isnan(number)) number = NAN;
  uint64_t bits = 0;
  std::memcpy(&bits, &number, sizeof bits);
  return mix(bits ^ hashKey(), 0xE7037ED1A0B428DB);
}

constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

}  // namespace

// How a value is held.
enum class Value::Kind : uint8_t {
  kString,
  kBoolean,
  kInteger,
  kLargeUnsigned,
  kReal,
  kData,
  kDate,
  kArray,
  kDictionary,
  kSet
};

template <class T>
struct Value::Holder : Object {
  const T content;
  template <class From>
  Holder(Kind k, From&& from) : Object(k), content(std::forward<From>(from)) {}
};

template <class T>
Value Value::make(Kind kind, T content) {
  constexpr bool kIsContainer = std::is_same_v<T, Array> || std::is_same_v<T, Dictionary>;
  using Content = std::conditional_t<kIsContainer, Hashed<T>, T>;
  return Value(new Holder<Content>(kind, std::move(content)));
}

void Value::destroy(const Object* object) {
  switch (object->kind) {
    case Kind::kString:
    case Kind::kData:
      delete static_cast<const Holder<std::string>*>(object);
      return;
    case Kind::kBoolean:
      delete static_cast<const Holder<bool>*>(object);
      return;
    case Kind::kInteger:
      delete static_cast<const Holder<int64_t>*>(object);
      return;
    case Kind::kLargeUnsigned:
      delete static_cast<const Holder<uint64_t>*>(object);
      return;
    case Kind::kReal:
    case Kind::kDate:
      delete static_cast<const Holder<double>*>(object);
      return;
    case Kind::kArray:
    case Kind::kSet:
      delete static_cast<const Holder<Hashed<Array>>*>(object);
      return;
    case Kind::kDictionary:
      delete static_cast<const Holder<Hashed<Dictionary>>*>(object);
      return;
  }
}

template <class T>
const T* Value::held(Kind kind) const {
  if (!object_ || object_->kind != kind) return nullptr;
  return &static_cast<const Holder<T>&>(*object_).content;
}

Value Value::string(std::string text) { return make(Kind::kString, std::move(text)); }
Value Value::boolean(bool truth) { return make(Kind::kBoolean, truth); }
Value Value::integer(int64_t number) { return make(Kind::kInteger, number); }
Value Value::unsignedInteger(uint64_t number) {
  if (number <= INT64_MAX) return integer(static_cast<int64_t>(number));
  return make(Kind::kLargeUnsigned, number);
}
Value Value::real(double number) { return make(Kind::kReal, number); }
Value Value::data(std::string bytes) { return make(Kind::kData, std::move(bytes)); }
Value Value::date(double seconds) { return make(Kind::kDate, seconds); }
Value Value::array(Array members) { return make(Kind::kArray, std::move(members)); }
Value Value::dictionary(Dictionary entries) { return make(Kind::kDictionary, std::move(entries)); }
Value Value::set(Array members) {
  Dictionary seen;
  Array unique;
  for (Value& member : members) {
    const size_t before = seen.size();
    seen.set(member, member);
    if (seen.size() != before) unique.push_back(std::move(member));
  }
  return make(Kind::kSet, std::move(unique));
}

Value::Class Value::valueClass() const {
  if (!object_) return Class::kNone;
  // In the order of the kinds.
  constexpr Class kClasses[] = {Class::kString,     Class::kBoolean, Class::kNumber, Class::kNumber,
                                Class::kNumber,     Class::kData,    Class::kDate,   Class::kArray,
                                Class::kDictionary, Class::kSet};
  static_assert(std::size(kClasses) == static_cast<size_t>(Kind::kSet) + 1);
  return kClasses[static_cast<size_t>(object_->kind)];
}

bool Value::isKindOfClass(Class k) const {
  const Class own = valueClass();
  return own != Class::kNone && (own == k || (own == Class::kBoolean && k == Class::kNumber));
}

const std::string* Value::asString() const { return held<std::string>(Kind::kString); }
const std::string* Value::asData() const { return held<std::string>(Kind::kData); }
const Value::Array* Value::asArray() const {
  const auto* array = held<Hashed<Array>>(Kind::kArray);
  return array ? &array->members : nullptr;
}
const Value::Array* Value::asSet() const {
  const auto* set = held<Hashed<Array>>(Kind::kSet);
  return set ? &set->members : nullptr;
}
const Dictionary* Value::asDictionary() const {
  const auto* dictionary = held<Hashed<Dictionary>>(Kind::kDictionary);
  return dictionary ? &dictionary->members : nullptr;
}
std::optional<bool> Value::asBoolean() const {
  const bool* truth = held<bool>(Kind::kBoolean);
  return truth ? std::optional(*truth) : std::nullopt;
}
std::optional<double> Value::asDate() const {
  const double* seconds = held<double>(Kind::kDate);
  return seconds ? std::optional(*seconds) : std::nullopt;
}

int64_t Value::int64Value() const {
  if (const auto* number = held<int64_t>(Kind::kInteger)) return *number;
  if (const auto* number = held<uint64_t>(Kind::kLargeUnsigned))
    return static_cast<int64_t>(*number);
  if (const auto* truth = held<bool>(Kind::kBoolean)) return *truth ? 1 : 0;
  const auto* number = held<double>(Kind::kReal);
  if (!number || std::isnan(*number)) return 0;
  if (*number >= kTwoTo63) return INT64_MAX;
  return *number <= -kTwoTo63 ? INT64_MIN : static_cast<int64_t>(*number);
}

uint64_t Value::uint64Value() const {
  if (isReal()) {
    const double number = doubleValue();
    if (number >= kTwoTo64) return UINT64_MAX;
    if (number >= kTwoTo63) return static_cast<uint64_t>(number);
  }
  return static_cast<uint64_t>(int64Value());
}

double Value::doubleValue() const {
  if (const auto* number = held<double>(Kind::kReal)) return *number;
  if (const auto* number = held<uint64_t>(Kind::kLargeUnsigned))
    return static_cast<double>(*number);
  return static_cast<double>(int64Value());
}

bool Value::isReal() const { return held<double>(Kind::kReal) != nullptr; }
bool Value::isLargeUnsigned() const { return held<uint64_t>(Kind::kLargeUnsigned) != nullptr; }

namespace {

// What is not a number equals itself here, so that a key is found again whatever it is.
bool sameNumber(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

}  // namespace

bool operator==(const Value& a, const Value& b) {
  if (a.object_ == b.object_) return true;
  const Value::Class own = a.valueClass();
  if (own != b.valueClass()) return false;
  switch (own) {
    case Value::Class::kNone:
      return true;
    case Value::Class::kString:
      return *a.asString() == *b.asString();
    case Value::Class::kBoolean:
      return a.asBoolean() == b.asBoolean();
    case Value::Class::kNumber:
      if (a.isReal() || b.isReal()) return sameNumber(a.doubleValue(), b.doubleValue());
      return a.isLargeUnsigned() == b.isLargeUnsigned() && a.int64Value() == b.int64Value();
    case Value::Class::kData:
      return *a.asData() == *b.asData();
    case Value::Class::kDate:
      return sameNumber(*a.asDate(), *b.asDate());
    case Value::Class::kArray:
      return *a.asArray() == *b.asArray();
    case Value::Class::kDictionary:
      return *a.asDictionary() == *b.asDictionary();
    case Value::Class::kSet: {
      const Value::Array& members = *a.asSet();
      if (members.size() != b.asSet()->size()) return false;
      Dictionary others;
      for (const Value& member : *b.asSet()) others.set(member, member);
      return std::all_of(members.begin(), members.end(),
                         [&](const Value& m) { return bool{others.get(m)}; });
    }
  }
  return false;
}

size_t Value::hashOfString(std::string_view text) { return hashBytes(text); }

size_t Value::hash() const {
  const auto salt = static_cast<uint64_t>(valueClass());
  switch (valueClass()) {
    case Class::kNone:
      return 0;
    case Class::kString:
      return hashBytes(*asString());
    case Class::kData:
      return hashBytes(*asData()) ^ salt;
    case Class::kBoolean:
      return hashKey() + (*asBoolean() ? 1U : 2U);
    case Class::kNumber:
      return hashNumber(doubleValue());
    case Class::kDate:
      return hashNumber(*asDate()) ^ salt;
    case Class::kArray:
    case Class::kSet:
    case Class::kDictionary: {
      // Any thread may be the first to ask; all of them find the same.
      const auto* dictionary = held<Hashed<Dictionary>>(Kind::kDictionary);
      const auto* members = dictionary ? nullptr : held<Hashed<Array>>(object_->kind);
      std::atomic<size_t>& kept = dictionary ? dictionary->hash : members->hash;
      size_t hash = kept.load(std::memory_order_relaxed);
      if (hash == 0) {
        hash = hashOfContainer();
        kept.store(hash, std::memory_order_relaxed);
      }
      return hash;
    }
  }
  return 0;
}

size_t Value::hashOfContainer() const {
  auto hash = static_cast<uint64_t>(valueClass());
  if (const Array* members = asArray()) {
    for (const Value& member : *members) hash = mix(hash ^ member.hash(), 0x8EBC6AF09C88C6E3);
  } else if (const Array* set = asSet()) {
    for (const Value& member : *set) hash += member.hash();  // without order
  } else if (const Dictionary* entries = asDictionary()) {
    for (const auto& [key, value] : *entries) hash += mix(key.hash(), value.hash() | 1);
  }
  return hash;
}

std::string dateText(double seconds) {
  // Days of 86,400 s from 2001-01-01; the civil calendar by Howard Hinnant's days algorithm,
  // shifted to 0000-03-01.
  constexpr int64_t kDaysTo2001 = 730791;
  constexpr double kYear1 = -63113904000.0;
  constexpr double kYear10000 = 252423993600.0;
  if (!(seconds >= kYear1 && seconds < kYear10000)) return {};
  const auto whole = static_cast<int64_t>(std::floor(seconds));
  const int64_t day = (whole >= 0 ? whole : whole - 86399) / 86400;
  const int64_t second = whole - day * 86400;
  const int64_t shifted = day + kDaysTo2001;
  const int64_t era = shifted / 146097;
  const int64_t dayOfEra = shifted - era * 146097;
  const int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
  const int64_t dayOfMonth = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
  const int64_t month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
  const int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
  char text[sizeof "YYYY-MM-DDThh:mm:ssZ" + 16];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", static_cast<int>(year),
                static_cast<int>(month), static_cast<int>(dayOfMonth),
                static_cast<int>(second / 3600), static_cast<int>(second / 60 % 60),
                static_cast<int>(second % 60));
  return text;
}

namespace {

void appendNumber(std::string& out, const Value& value) {
  char digits[32];
  char* end = digits + sizeof digits;
  std::to_chars_result result{};
  if (value.isReal()) {
    result = std::to_chars(digits, end, value.doubleValue());
  } else if (value.isLargeUnsigned()) {
    result = std::to_chars(digits, end, value.uint64Value());
  } else {
    result = std::to_chars(digits, end, value.int64Value());
  }
  out.append(digits, result.ptr);
}

void appendData(std::string& out, std::string_view bytes) {
  constexpr std::string_view kHex = "0123456789abcdef";
  out += '<';
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    out += kHex[byte >> 4];
    out += kHex[byte & 15];
  }
  out += '>';
}

}  // namespace

std::string_view nameOfClass(Value::Class k) {
  constexpr std::string_view kNames[] = {"none", "string", "number",     "boolean", "data",
                                         "date", "array",  "dictionary", "set"};
  return kNames[static_cast<size_t>(k)];
}

void appendDescription(std::string& out, const Value& value) {
  switch (value.valueClass()) {
    case Value::Class::kNone:
      out += "(null)";
      return;
    case Value::Class::kString:
      out += *value.asString();
      return;
    case Value::Class::kBoolean:
      out += *value.asBoolean() ? '1' : '0';
      return;
    case Value::Class::kNumber:
      appendNumber(out, value);
      return;
    case Value::Class::kData:
      appendData(out, *value.asData());
      return;
    case Value::Class::kDate:
      out += dateText(*value.asDate());
      return;
    case Value::Class::kArray:
      appendDescription(out, *value.asArray());
      return;
    case Value::Class::kSet:
      appendDescription(out, *value.asSet());
      return;
    case Value::Class::kDictionary:
      appendDescription(out, *value.asDictionary());
      return;
  }
}

void appendDescription(std::string& out, const Dictionary& dictionary) {
  out += '{';
  std::string_view separator;
  for (const auto& [key, value] : dictionary) {
    out += separator;
    appendDescription(out, key);
    out += " = ";
    appendDescription(out, value);
    separator = "; ";
  }
  out += '}';
}

}  // namespace pallion
