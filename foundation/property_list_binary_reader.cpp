#include <cmath>
#include <cstring>
#include <vector>

#include "foundation/property_list.h"
#include "foundation/property_list_formats.h"

// The format: the magic, the objects, a table of their offsets, and a trailer of 32 bytes: six
// unused, the sizes in bytes of an offset and of a reference, then as 64-bit numbers the count of
// objects, the root's index and the offset of the table. All numbers are big-endian. An object
// begins with a marker byte whose high half tells the type; the low half holds a length, or 15 when
// an integer object with the length follows.

namespace pallion::detail {

namespace {

constexpr size_t kTrailerSize = 32;

bool isASCII(std::string_view text) {
  constexpr uint64_t kHighBits = 0x8080808080808080;
  uint64_t any = 0;
  while (text.size() >= sizeof any) {
    uint64_t word = 0;
    std::memcpy(&word, text.data(), sizeof word);
    any |= word;
    text.remove_prefix(sizeof word);
  }
  for (const char c : text) any |= static_cast<unsigned char>(c);
  return (any & kHighBits) == 0;
}

class BinaryReader {
 public:
  explicit BinaryReader(std::string_view bytes)
      : bytes_(bytes), weightLimit_(unfoldedLimit(bytes.size())) {}

  Value read() {
    if (!readTrailer()) return {};
    const Slot* root = object(root_, 0);
    return root ? root->value : Value();
  }

 private:
  struct Slot {
    Value value;
    uint64_t weight = 0;  // what the object unfolds to, see unfoldedLimit; 0 before it is read
    int height = 0;       // containers from here to the deepest one
  };

  // An object's type and where its content is.
  struct Head {
    unsigned type = 0;
    unsigned low = 0;
    uint64_t count = 0;
    size_t content = 0;
  };

  bool readTrailer();
  Slot* object(uint64_t index, int enclosing);
  Slot* reference(size_t at, int enclosing) {
    return object(number(at, referenceSize_), enclosing);
  }
  bool readHead(size_t at, Head& head) const;
  bool readObject(size_t at, int enclosing, Slot& slot);
  bool claim(const Head& head, size_t start, uint64_t itemSize);
  bool readScalar(const Head& head, size_t start, Slot& slot);
  bool readSimple(const Head& head, size_t start, Value& value);
  bool readInteger(const Head& head, Value& value) const;
  bool readASCII(const Head& head, Value& value) const;
  bool readUTF16(const Head& head, Value& value) const;
  bool readMembers(const Head& head, int enclosing, Slot& slot);
  bool readDictionary(const Head& head, int enclosing, Slot& slot);
  bool addChild(Slot& slot, const Slot* child) const;

  // `size` bytes (1 to 8) at `at`. The trailer behind everything makes eight bytes readable from
  // any place.
  [[nodiscard]] uint64_t number(size_t at, size_t size) const {
    uint64_t word = 0;
    std::memcpy(&word, bytes_.data() + at, sizeof word);
    return __builtin_bswap64(word) >> (64 - 8 * size);
  }
  [[nodiscard]] double real(size_t at) const {
    const uint64_t bits = number(at, sizeof bits);
    double value = 0;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }

  std::string_view bytes_;
  uint64_t weightLimit_;
  size_t objectsEnd_ = 0;  // the offset table begins here
  size_t offsetSize_ = 0;
  size_t referenceSize_ = 0;
  uint64_t root_ = 0;
  size_t unclaimed_ = 0;
  std::vector<Slot> slots_;
};

bool BinaryReader::readTrailer() {
  if (bytes_.size() < kTrailerSize) return false;
  const size_t trailer = bytes_.size() - kTrailerSize;
  offsetSize_ = number(trailer + 6, 1);
  referenceSize_ = number(trailer + 7, 1);
  const uint64_t count = number(trailer + 8, 8);
  root_ = number(trailer + 16, 8);
  const uint64_t table = number(trailer + 24, 8);
  if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) return false;
  if (table < kBinaryMagic.size() || table > trailer) return false;
  objectsEnd_ = table;
  unclaimed_ = objectsEnd_ - kBinaryMagic.size();
  if (count > (trailer - table) / offsetSize_ || count > unclaimed_) return false;
  slots_.resize(count);
  return true;
}

BinaryReader::Slot* BinaryReader::object(uint64_t index, int enclosing) {
  if (index >= slots_.size()) return nullptr;
  Slot& slot = slots_[index];
  if (slot.weight == 0) {
    const uint64_t offset = number(objectsEnd_ + index * offsetSize_, offsetSize_);
    if (offset < kBinaryMagic.size() || offset >= objectsEnd_) return nullptr;
    // While it is being read it has no value yet, which addChild refuses: it contains itself.
    slot.weight = 1;
    if (!readObject(offset, enclosing, slot)) return nullptr;
  }
  return enclosing + slot.height <= kPropertyListMaximumDepth ? &slot : nullptr;
}

bool BinaryReader::readHead(size_t at, Head& head) const {
  const uint64_t marker = number(at, 1);
  head.type = static_cast<unsigned>(marker >> 4);
  head.low = static_cast<unsigned>(marker & 15);
  head.count = head.low;
  head.content = at + 1;
  if (head.low != 15 || head.type < 4) return true;
  const uint64_t countMarker = number(at + 1, 1);
  const size_t size = size_t{1} << (countMarker & 15);
  if (countMarker >> 4 != 1 || size > sizeof(uint64_t)) return false;
  head.count = number(at + 2, size);
  head.content = at + 2 + size;
  return true;
}

// Checks that `head.count` items lie before the offset table. Objects of a sound list share no
// bytes: without this rule many indexes of one long object would each make a copy of it.
bool BinaryReader::claim(const Head& head, size_t start, uint64_t itemSize) {
  if (head.content > objectsEnd_ || head.count > (objectsEnd_ - head.content) / itemSize)
    return false;
  const size_t size = head.content - start + head.count * itemSize;
  if (size > unclaimed_) return false;
  unclaimed_ -= size;
  return true;
}

bool BinaryReader::readObject(size_t at, int enclosing, Slot& slot) {
  Head head;
  if (!readHead(at, head)) return false;
  if (head.type < 0xA) return readScalar(head, at, slot);
  if (enclosing >= kPropertyListMaximumDepth) return false;
  slot.height = 1;
  switch (head.type) {
    case 0xA:
    case 0xC:
      return claim(head, at, referenceSize_) && readMembers(head, enclosing + 1, slot);
    case 0xD:
      return claim(head, at, 2 * referenceSize_) && readDictionary(head, enclosing + 1, slot);
    default:
      return false;
  }
}

bool BinaryReader::readScalar(const Head& head, size_t start, Slot& slot) {
  bool good = false;
  switch (head.type) {
    case 0x4:
      good = claim(head, start, 1);
      if (good) slot.value = Value::data(std::string(bytes_.substr(head.content, head.count)));
      break;
    case 0x5:
      good = claim(head, start, 1) && readASCII(head, slot.value);
      break;
    case 0x6:
      good = claim(head, start, 2) && readUTF16(head, slot.value);
      break;
    default:
      good = readSimple(head, start, slot.value);
      break;
  }
  if (!good) return false;
  if (const std::string* text = slot.value.asString()) slot.weight += text->size();
  if (const std::string* data = slot.value.asData()) slot.weight += data->size();
  return true;
}

bool BinaryReader::readSimple(const Head& head, size_t start, Value& value) {
  Head sized = head;
  switch (head.type) {
    case 0x0:
      sized.count = 0;
      if (!claim(sized, start, 1)) return false;
      if (head.low == 0) return true;  // null
      if (head.low != 8 && head.low != 9) return false;
      value = Value::boolean(head.low == 9);
      return true;
    case 0x1:
      if (head.low > 4) return false;
      sized.count = uint64_t{1} << head.low;
      return claim(sized, start, 1) && readInteger(sized, value);
    case 0x2:
      if (head.low != 2 && head.low != 3) return false;
      sized.count = uint64_t{1} << head.low;
      if (!claim(sized, start, 1)) return false;
      if (head.low == 3) {
        value = Value::real(real(head.content));
      } else {
        const auto bits = static_cast<uint32_t>(number(head.content, 4));
        float single = 0;
        std::memcpy(&single, &bits, sizeof single);
        value = Value::real(static_cast<double>(single));
      }
      return true;
    case 0x3:
      sized.count = 8;
      if (head.low != 3 || !claim(sized, start, 1) || !std::isfinite(real(head.content)))
        return false;
      value = Value::date(real(head.content));
      return true;
    case 0x8:  // UID: one byte more than the low half says
      sized.count = head.low + 1;
      if (sized.count > sizeof(uint64_t) || !claim(sized, start, 1)) return false;
      value = Value::unsignedInteger(number(head.content, sized.count));
      return true;
    default:
      return false;
  }
}

// Up to four bytes are unsigned, eight signed, sixteen signed with the range of both 64-bit types.
bool BinaryReader::readInteger(const Head& head, Value& value) const {
  if (head.count < 16) {
    value = Value::integer(static_cast<int64_t>(number(head.content, head.count)));
    return true;
  }
  const uint64_t high = number(head.content, 8);
  const uint64_t low = number(head.content + 8, 8);
  if (high == 0) {
    value = Value::unsignedInteger(low);
    return true;
  }
  if (high != UINT64_MAX || low <= INT64_MAX) return false;
  value = Value::integer(static_cast<int64_t>(low));
  return true;
}

bool BinaryReader::readASCII(const Head& head, Value& value) const {
  const std::string_view text = bytes_.substr(head.content, head.count);
  if (!isASCII(text)) return false;
  value = Value::string(std::string(text));
  return true;
}

bool BinaryReader::readUTF16(const Head& head, Value& value) const {
  std::string text;
  text.reserve(head.count);
  for (size_t i = 0; i < head.count; ++i) {
    auto character = static_cast<char32_t>(number(head.content + 2 * i, 2));
    if (character >= 0xD800 && character < 0xE000) {
      if (character >= 0xDC00 || ++i == head.count) return false;
      const auto second = static_cast<char32_t>(number(head.content + 2 * i, 2));
      if (second < 0xDC00 || second >= 0xE000) return false;
      character = 0x10000 + ((character - 0xD800) << 10) + (second - 0xDC00);
    }
    appendUTF8(text, character);
  }
  value = Value::string(std::move(text));
  return true;
}

// Enters a child's figures into its container's. All that is read is part of the root's unfolding,
// so the first container above the limit decides.
bool BinaryReader::addChild(Slot& slot, const Slot* child) const {
  if (!child || !child->value) return false;
  slot.height = std::max(slot.height, child->height + 1);
  slot.weight += child->weight;
  return slot.weight <= weightLimit_;
}

bool BinaryReader::readMembers(const Head& head, int enclosing, Slot& slot) {
  Value::Array members;
  members.reserve(head.count);
  for (size_t i = 0; i < head.count; ++i) {
    const Slot* member = reference(head.content + i * referenceSize_, enclosing);
    if (!addChild(slot, member)) return false;
    members.push_back(member->value);
  }
  slot.value = head.type == 0xC ? Value::set(std::move(members)) : Value::array(std::move(members));
  return true;
}

bool BinaryReader::readDictionary(const Head& head, int enclosing, Slot& slot) {
  Dictionary entries;
  entries.reserve(head.count);
  for (size_t i = 0; i < head.count; ++i) {
    const size_t at = head.content + i * referenceSize_;
    const Slot* key = reference(at, enclosing);
    if (key) entries.expect(key->value);
    const Slot* value = reference(at + head.count * referenceSize_, enclosing);
    if (!addChild(slot, key) || !addChild(slot, value)) return false;
    entries.set(key->value, value->value);
  }
  slot.value = Value::dictionary(std::move(entries));
  return true;
}

}  // namespace

Value readBinaryPropertyList(std::string_view bytes) { return BinaryReader(bytes).read(); }

}  // namespace pallion::detail
