#include <cmath>
#include <cstring>
#include <unordered_set>
#include <vector>

#include "foundation/property_list.h"
#include "foundation/property_list_formats.h"

// The format is described in property_list_binary_reader.cpp.

namespace pallion::detail {

namespace {

void appendBigEndian(std::string& out, uint64_t number, size_t size) {
  while (size-- > 0) out += static_cast<char>(number >> (8 * size) & 0xFF);
}

// The fewest bytes that hold `number`.
size_t bytesFor(uint64_t number) {
  size_t size = 1;
  while (number >>= 8) ++size;
  return size;
}

void appendInteger(std::string& out, const Value& value) {
  if (value.isLargeUnsigned()) {
    out += '\x14';
    appendBigEndian(out, 0, 8);
    appendBigEndian(out, value.uint64Value(), 8);
    return;
  }
  const int64_t number = value.int64Value();
  // Shorter ones are unsigned.
  const unsigned power = number < 0 || number > UINT32_MAX ? 3
                         : number > UINT16_MAX             ? 2
                         : number > UINT8_MAX              ? 1
                                                           : 0;
  out += static_cast<char>(0x10 | power);
  appendBigEndian(out, static_cast<uint64_t>(number), size_t{1} << power);
}

void appendReal(std::string& out, char marker, double number) {
  uint64_t bits = 0;
  std::memcpy(&bits, &number, sizeof bits);
  out += marker;
  appendBigEndian(out, bits, sizeof bits);
}

void appendHead(std::string& out, unsigned type, size_t count) {
  out += static_cast<char>(type << 4 | std::min<size_t>(count, 15));
  if (count >= 15) appendInteger(out, Value::unsignedInteger(count));
}

bool appendText(std::string& out, std::string_view text) {
  const auto isASCII = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
  if (std::all_of(text.begin(), text.end(), isASCII)) {
    appendHead(out, 0x5, text.size());
    out += text;
    return true;
  }
  std::string units;
  while (!text.empty()) {
    const char32_t character = takeCharacter(text);
    if (character == kNoCharacter) return false;
    if (character < 0x10000) {
      appendBigEndian(units, character, 2);
    } else {
      appendBigEndian(units, 0xD800 + ((character - 0x10000) >> 10), 2);
      appendBigEndian(units, 0xDC00 + ((character - 0x10000) & 0x3FF), 2);
    }
  }
  appendHead(out, 0x6, units.size() / 2);
  out += units;
  return true;
}

bool appendScalar(std::string& out, const Value& value) {
  switch (value.valueClass()) {
    case Value::Class::kString:
      return appendText(out, *value.asString());
    case Value::Class::kBoolean:
      out += *value.asBoolean() ? '\x09' : '\x08';
      return true;
    case Value::Class::kNumber:
      if (value.isReal()) {
        appendReal(out, '\x23', value.doubleValue());
      } else {
        appendInteger(out, value);
      }
      return true;
    case Value::Class::kData:
      appendHead(out, 0x4, value.asData()->size());
      out += *value.asData();
      return true;
    case Value::Class::kDate:
      appendReal(out, '\x33', *value.asDate());
      return std::isfinite(*value.asDate());
    default:
      return false;
  }
}

// Lays out objects by index first: the size of a reference depends on how many there are.
class BinaryWriter {
 public:
  // `sharing`: scalars of equal bytes become one object.
  explicit BinaryWriter(bool sharing) : sharing_(sharing) {}

  // Adds a value that `enclosing` containers surround and all below it; `index` becomes its index.
  bool add(const Value& value, int enclosing, size_t& index);
  [[nodiscard]] std::string finish() const;
  [[nodiscard]] uint64_t weight() const { return weight_; }

 private:
  struct Object {
    unsigned container;  // its type, or 0 for a scalar
    size_t start;        // in references_; of a scalar in scalars_
    size_t count;        // members or entries; of a scalar its bytes
  };
  struct Hash {
    const BinaryWriter* writer;
    size_t operator()(size_t index) const { return Value::hashOfString(writer->scalar(index)); }
  };
  struct Equals {
    const BinaryWriter* writer;
    bool operator()(size_t a, size_t b) const { return writer->scalar(a) == writer->scalar(b); }
  };

  [[nodiscard]] std::string_view scalar(size_t index) const {
    return std::string_view(scalars_).substr(objects_[index].start, objects_[index].count);
  }
  bool addScalar(const Value& value, size_t& index);
  bool addMembers(const Value::Array& members, int enclosing, size_t start);
  bool addEntries(const Dictionary& entries, int enclosing, size_t start);

  bool sharing_;
  uint64_t weight_ = 0;
  std::vector<Object> objects_;
  std::string scalars_;
  std::vector<size_t> references_;
  std::unordered_set<size_t, Hash, Equals> distinct_{0, Hash{this}, Equals{this}};
};

bool BinaryWriter::addScalar(const Value& value, size_t& index) {
  if (const std::string* text = value.asString()) weight_ += text->size();
  if (const std::string* data = value.asData()) weight_ += data->size();
  const size_t start = scalars_.size();
  if (!appendScalar(scalars_, value)) return false;
  objects_.push_back({0, start, scalars_.size() - start});
  index = objects_.size() - 1;
  if (!sharing_) return true;
  const auto [place, isNew] = distinct_.insert(index);
  if (isNew) return true;
  objects_.pop_back();
  scalars_.resize(start);
  index = *place;
  return true;
}

bool BinaryWriter::add(const Value& value, int enclosing, size_t& index) {
  ++weight_;
  const Dictionary* entries = value.asDictionary();
  const Value::Array* members = value.asArray() ? value.asArray() : value.asSet();
  if (!entries && !members) return addScalar(value, index);
  if (enclosing >= kPropertyListMaximumDepth) return false;
  index = objects_.size();
  const size_t start = references_.size();
  const unsigned type = entries ? 0xD : value.asArray() ? 0xA : 0xC;
  const size_t count = entries ? entries->size() : members->size();
  objects_.push_back({type, start, count});
  references_.resize(start + (entries ? 2 * count : count));
  return entries ? addEntries(*entries, enclosing + 1, start)
                 : addMembers(*members, enclosing + 1, start);
}

bool BinaryWriter::addMembers(const Value::Array& members, int enclosing, size_t start) {
  for (size_t i = 0; i < members.size(); ++i) {
    size_t index = 0;
    if (!add(members[i], enclosing, index)) return false;
    references_[start + i] = index;
  }
  return true;
}

bool BinaryWriter::addEntries(const Dictionary& entries, int enclosing, size_t start) {
  for (const auto& [key, value] : entries) {
    size_t keyIndex = 0;
    size_t valueIndex = 0;
    if (!add(key, enclosing, keyIndex) || !add(value, enclosing, valueIndex)) return false;
    references_[start] = keyIndex;
    references_[start + entries.size()] = valueIndex;
    ++start;
  }
  return true;
}

std::string BinaryWriter::finish() const {
  const size_t referenceSize = bytesFor(objects_.size() - 1);
  std::string out(kBinaryMagic);
  std::vector<size_t> offsets;
  offsets.reserve(objects_.size());
  for (size_t i = 0; i < objects_.size(); ++i) {
    offsets.push_back(out.size());
    const Object& object = objects_[i];
    if (object.container == 0) {
      out += scalar(i);
      continue;
    }
    appendHead(out, object.container, object.count);
    const size_t references = object.container == 0xD ? 2 * object.count : object.count;
    for (size_t k = 0; k < references; ++k) {
      appendBigEndian(out, references_[object.start + k], referenceSize);
    }
  }
  const size_t table = out.size();
  const size_t offsetSize = bytesFor(offsets.back());
  for (const size_t offset : offsets) appendBigEndian(out, offset, offsetSize);
  out.append(6, '\0');
  appendBigEndian(out, offsetSize, 1);
  appendBigEndian(out, referenceSize, 1);
  appendBigEndian(out, objects_.size(), 8);
  appendBigEndian(out, 0, 8);  // the root
  appendBigEndian(out, table, 8);
  return out;
}

}  // namespace

std::optional<std::string> writeBinaryPropertyList(const Value& value) {
  // A long text that stands in many places would make, written once, a list that unfolds too far to
  // be read back.
  for (const bool sharing : {true, false}) {
    BinaryWriter writer(sharing);
    size_t root = 0;
    if (!writer.add(value, 0, root)) return std::nullopt;
    std::string bytes = writer.finish();
    if (!sharing || writer.weight() <= unfoldedLimit(bytes.size())) return bytes;
  }
  return std::nullopt;
}

}  // namespace pallion::detail
