#include "foundation/value.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sys/random.h>
#include <variant>

#include "foundation/format.h"

namespace pallion {

namespace {

struct Date {
  double seconds;
};
struct Bytes {
  std::string bytes;
};
struct Members {
  Value::Array members;
};

uint64_t hashKey() {
  static const uint64_t kKey = [] {
    uint64_t key = 0;
    if (getrandom(&key, sizeof key, 0) != sizeof key) key = 0x9E3779B97F4A7C15;
    return key | 1;
  }();
  return kKey;
}

// Folded 128-bit product: a small keyed mixer, so that keys chosen to collide do not.
uint64_t mix(uint64_t a, uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

uint64_t hashBytes(std::string_view bytes) {
  constexpr uint64_t kOdd = 0xA0761D6478BD642F;
  uint64_t hash = hashKey() ^ (bytes.size() * kOdd);
  while (bytes.size() >= sizeof(uint64_t)) {
    uint64_t word = 0;
    std::memcpy(&word, bytes.data(), sizeof word);
    hash = mix(hash ^ word, kOdd ^ hashKey());
    bytes.remove_prefix(sizeof word);
  }
  uint64_t rest = 0;
  if (!bytes.empty())
    std::memcpy(&rest, bytes.data(), bytes.size());  // the data of an empty view may be null
  return mix(hash ^ rest, kOdd);
}

uint64_t hashNumber(double number) {
  if (number == 0) number = 0;  // -0.0 equals 0.0
  uint64_t bits = 0;
  std::memcpy(&bits, &number, sizeof bits);
  return mix(bits ^ hashKey(), 0xE7037ED1A0B428DB);
}

constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

}  // namespace

struct Value::Object {
  std::variant<std::string, bool, int64_t, uint64_t, double, Bytes, Date, Array, Dictionary,
               Members>
      content;
  mutable std::atomic<size_t> containerHash{0};  // 0 until somebody asks for it

  template <class T>
  requires(!std::is_same_v<std::remove_cvref_t<T>, Object>) explicit Object(T&& held)
      : content(std::forward<T>(held)) {}
};

Value Value::string(std::string text) {
  return Value(std::make_shared<const Object>(std::move(text)));
}
Value Value::boolean(bool truth) { return Value(std::make_shared<const Object>(truth)); }
Value Value::integer(int64_t number) { return Value(std::make_shared<const Object>(number)); }
Value Value::unsignedInteger(uint64_t number) {
  if (number <= INT64_MAX) return integer(static_cast<int64_t>(number));
  return Value(std::make_shared<const Object>(number));
}
Value Value::real(double number) { return Value(std::make_shared<const Object>(number)); }
Value Value::data(std::string bytes) {
  return Value(std::make_shared<const Object>(Bytes{std::move(bytes)}));
}
Value Value::date(double seconds) { return Value(std::make_shared<const Object>(Date{seconds})); }
Value Value::array(Array members) {
  return Value(std::make_shared<const Object>(std::move(members)));
}
Value Value::dictionary(Dictionary entries) {
  return Value(std::make_shared<const Object>(std::move(entries)));
}
Value Value::set(Array members) {
  Dictionary seen;
  Members unique;
  for (Value& member : members) {
    const size_t before = seen.size();
    seen.set(member, member);
    if (seen.size() != before) unique.members.push_back(std::move(member));
  }
  return Value(std::make_shared<const Object>(std::move(unique)));
}

Value::Class Value::valueClass() const {
  if (!object_) return Class::kNone;
  // In the order of the variant's alternatives.
  constexpr Class kClasses[] = {Class::kString,     Class::kBoolean, Class::kNumber, Class::kNumber,
                                Class::kNumber,     Class::kData,    Class::kDate,   Class::kArray,
                                Class::kDictionary, Class::kSet};
  static_assert(std::size(kClasses) == std::variant_size_v<decltype(Object::content)>);
  return kClasses[object_->content.index()];
}

bool Value::isKindOfClass(Class k) const {
  const Class own = valueClass();
  return own != Class::kNone && (own == k || (own == Class::kBoolean && k == Class::kNumber));
}

const std::string* Value::asString() const {
  return object_ ? std::get_if<std::string>(&object_->content) : nullptr;
}
const std::string* Value::asData() const {
  const Bytes* held = object_ ? std::get_if<Bytes>(&object_->content) : nullptr;
  return held ? &held->bytes : nullptr;
}
const Value::Array* Value::asArray() const {
  return object_ ? std::get_if<Array>(&object_->content) : nullptr;
}
const Value::Array* Value::asSet() const {
  const Members* held = object_ ? std::get_if<Members>(&object_->content) : nullptr;
  return held ? &held->members : nullptr;
}
const Dictionary* Value::asDictionary() const {
  return object_ ? std::get_if<Dictionary>(&object_->content) : nullptr;
}
std::optional<bool> Value::asBoolean() const {
  const bool* held = object_ ? std::get_if<bool>(&object_->content) : nullptr;
  return held ? std::optional(*held) : std::nullopt;
}
std::optional<double> Value::asDate() const {
  const Date* held = object_ ? std::get_if<Date>(&object_->content) : nullptr;
  return held ? std::optional(held->seconds) : std::nullopt;
}

int64_t Value::int64Value() const {
  if (!object_) return 0;
  if (const auto* number = std::get_if<int64_t>(&object_->content)) return *number;
  if (const auto* number = std::get_if<uint64_t>(&object_->content))
    return static_cast<int64_t>(*number);
  if (const auto* truth = std::get_if<bool>(&object_->content)) return *truth ? 1 : 0;
  const auto* number = std::get_if<double>(&object_->content);
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
  if (isReal()) return std::get<double>(object_->content);
  if (isLargeUnsigned()) return static_cast<double>(std::get<uint64_t>(object_->content));
  return static_cast<double>(int64Value());
}

bool Value::isReal() const { return object_ && std::holds_alternative<double>(object_->content); }
bool Value::isLargeUnsigned() const {
  return object_ && std::holds_alternative<uint64_t>(object_->content);
}

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
      if (a.isReal() || b.isReal()) return a.doubleValue() == b.doubleValue();
      return a.isLargeUnsigned() == b.isLargeUnsigned() && a.int64Value() == b.int64Value();
    case Value::Class::kData:
      return *a.asData() == *b.asData();
    case Value::Class::kDate:
      return a.asDate() == b.asDate();
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
      size_t hash = object_->containerHash.load(std::memory_order_relaxed);
      if (hash == 0) {
        hash = hashOfContainer();
        object_->containerHash.store(hash, std::memory_order_relaxed);
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
