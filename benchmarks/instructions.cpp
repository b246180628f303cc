// bench-instructions PATH: one parsing or formatting path of the product, over data made here, for
// benchmarks/instructions to count.

#include <cstdio>
#include <cstring>
#include <string>

#include "foundation/format.h"
#include "foundation/property_list.h"

namespace {

using namespace pallion;

constexpr int kItems = 2000;

Value sample() {
  Value::Array items;
  for (int i = 0; i < kItems; ++i) {
    const std::string number = std::to_string(i);
    items.push_back(Value::dictionary(
        {{"identifier", Value::string("com.example.application" + number)},
         {"path", Value::string("/private/var/mobile/Applications/" + number + "/Sample & Co.app")},
         {"index", Value::integer(i)},
         {"ratio", Value::real(i / 7.0)},
         {"installed", Value::date(i * 1000.0)},
         {"enabled", Value::boolean(i % 2 == 0)},
         {"bytes", Value::data(std::string(40, static_cast<char>(i)))}}));
  }
  return Value::array(std::move(items));
}

// The sample is made in every run, so that its own cost ("make") is the same part of each.
size_t make(const Value& value) { return value.asArray()->size(); }
size_t writeXML(const Value& value) {
  return writePropertyList(value, PropertyListFormat::kXML)->size();
}
size_t readXML(const Value& value) {
  return readPropertyList(*writePropertyList(value, PropertyListFormat::kXML)).asArray()->size();
}
size_t writeBinary(const Value& value) {
  return writePropertyList(value, PropertyListFormat::kBinary)->size();
}
size_t readBinary(const Value& value) {
  return readPropertyList(*writePropertyList(value, PropertyListFormat::kBinary)).asArray()->size();
}
size_t describe(const Value& value) {
  std::string text;
  appendDescription(text, value);
  return text.size();
}
size_t formatLines(const Value& value) {
  size_t size = 0;
  for (const Value& item : *value.asArray()) {
    size += format("PLAppMigrator: Migrating %@ at %s (%d, %08X)", item, "/private/var", 7, 255U)
                .size();
  }
  return size;
}

struct Path {
  const char* name;
  size_t (*run)(const Value& value);
};

constexpr Path kPaths[] = {
    {"make", make},
    {"write-xml", writeXML},
    {"read-xml", readXML},
    {"write-binary", writeBinary},
    {"read-binary", readBinary},
    {"describe", describe},
    {"format", formatLines},
};

}  // namespace

int main(int argc, char** argv) {
  for (const Path& path : kPaths) {
    if (argc == 1) {
      std::printf("%s\n", path.name);
    } else if (std::strcmp(argv[1], path.name) == 0) {
      return path.run(sample()) > 0 ? 0 : 1;
    }
  }
  return argc == 1 ? 0 : 2;
}
