#include "programs/palliontool/value_json.h"

#include <cmath>
#include <nlohmann/json.hpp>
#include <set>

#include "platform/text_escape.h"
#include "programs/common/base64.h"

namespace pallion::tool {

namespace {

using Json = nlohmann::ordered_json;

// Makes the JSON value; remembers the first reason why there is none.
class Converter {
 public:
  Json convert(const Value& value) {
    switch (value.valueClass()) {
      case Value::Class::kNone:
        return nullptr;
      case Value::Class::kString:
        return validUTF8(*value.asString());
      case Value::Class::kNumber:
        return number(value);
      case Value::Class::kBoolean:
        return *value.asBoolean();
      case Value::Class::kData:
        return base64(*value.asData());
      case Value::Class::kDate:
        return date(*value.asDate());
      case Value::Class::kArray:
        return members(*value.asArray());
      case Value::Class::kSet:
        return members(*value.asSet());
      case Value::Class::kDictionary:
        return entries(*value.asDictionary());
    }
    return nullptr;
  }

  JSONDocument document(const Json& json) const {
    return reason_.empty() ? JSONDocument{json.dump(2) + "\n", ""} : JSONDocument{"", reason_};
  }

 private:
  Json refuse(std::string reason) {
    if (reason_.empty()) reason_ = std::move(reason);
    return nullptr;
  }

  Json number(const Value& value) {
    if (value.isLargeUnsigned()) return value.uint64Value();
    if (!value.isReal()) return value.int64Value();
    return std::isfinite(value.doubleValue()) ? Json(value.doubleValue())
                                              : refuse("a number is not finite");
  }

  Json date(double seconds) {
    std::string text = dateText(seconds);
    return text.empty() ? refuse("a date is outside the years 1 to 9999") : Json(std::move(text));
  }

  Json members(const Value::Array& array) {
    Json json = Json::array();
    for (const Value& member : array) json.push_back(convert(member));
    return json;
  }

  Json entries(const Dictionary& dictionary) {
    // The library's ordered object looks through all its keys for each one that is added.
    std::set<std::string, std::less<>> known;
    Json json = Json::object();
    auto& object = json.get_ref<Json::object_t&>();
    for (const auto& [key, value] : dictionary) {
      if (!key.asString()) return refuse("a dictionary has a key that is no string");
      std::string name = validUTF8(*key.asString());
      if (!known.insert(name).second) return refuse("two keys of a dictionary become one: " + name);
      object.Container::emplace_back(std::move(name), convert(value));
    }
    return json;
  }

  std::string reason_;
};

}  // namespace

JSONDocument jsonOf(const Value& value) {
  Converter converter;
  const Json json = converter.convert(value);
  return converter.document(json);
}

JSONDocument jsonOf(const Entries& entries) {
  Converter converter;
  Json json = Json::object();
  for (const auto& [name, value] : entries) json[std::string(name)] = converter.convert(value);
  return converter.document(json);
}

}  // namespace pallion::tool
