#include "fuzz/property_list_check.h"

#include "foundation/format.h"
#include "fuzz/fuzz_target.h"
#include "tests/helpers/allocation_meter/allocation_meter.h"

namespace pallion::fuzz {

namespace {

// What is not a number differs from itself.
bool same(const Value& a, const Value& b) {
  if (a == b) return true;
  const std::string text = description(a);
  return text.find("nan") != std::string::npos && text == description(b);
}

void checkRoundTrip(const Value& value, PropertyListFormat format) {
  const std::optional<std::string> bytes = writePropertyList(value, format);
  require(bytes.has_value(), "what was read from a format can be written in it");
  const Value again = readPropertyList(*bytes);
  require(same(value, again), "what was written is read again");
  // Tells classes apart that compare equal.
  require(writePropertyList(again, format) == bytes, "what is written twice is written alike");
}

}  // namespace

void checkPropertyList(std::string_view bytes, PropertyListFormat format) {
  const size_t limit = 64 * bytes.size() + (size_t{1} << 20);
  Value value;
  {
    const test::AllocationMeter meter;
    value = readPropertyList(bytes);
    require(meter.peak() <= limit, "reading takes memory in proportion");
  }
  if (value) checkRoundTrip(value, format);
  // A binary list can hold all that one in XML holds.
  if (value && format == PropertyListFormat::kXML)
    checkRoundTrip(value, PropertyListFormat::kBinary);
  const test::AllocationMeter meter;
  value = {};
  require(meter.peak() <= limit, "freeing takes memory in proportion");
}

}  // namespace pallion::fuzz
