#include "foundation/value.h"

namespace pallion {

namespace {

// Up to this many entries a scan is quicker than hashing.
constexpr size_t kScanLimit = 8;
constexpr size_t kNotFound = SIZE_MAX;

// Kept in the index, so that a search touches hardly any entry but its own; the lower half chooses
// the slot.
uint32_t upperHalf(size_t hash) { return static_cast<uint32_t>(hash >> 32); }

}  // namespace

Dictionary::Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries) {
  for (const auto& [key, value] : entries) set(key, value);
}

void Dictionary::reserve(size_t count) {
  entries_.reserve(count);
  if (count > kScanLimit && slots_.size() < count * 2) rebuildIndex(count * 2);
}

void Dictionary::expect(const Value& key) const {
  if (!slots_.empty()) __builtin_prefetch(&slots_[key.hash() & (slots_.size() - 1)]);
}

template <class Equals>
size_t Dictionary::locate(size_t hash, const Equals& equals) const {
  if (slots_.empty()) {
    for (size_t i = 0; i < entries_.size(); ++i) {
      if (equals(entries_[i].first)) return i;
    }
    return kNotFound;
  }
  const size_t mask = slots_.size() - 1;
  for (size_t at = hash & mask; slots_[at].position != 0; at = (at + 1) & mask) {
    const Slot& slot = slots_[at];
    if (slot.hash == upperHalf(hash) && equals(entries_[slot.position - 1].first)) {
      return slot.position - 1;
    }
  }
  return kNotFound;
}

size_t Dictionary::find(const Value& key, size_t hash) const {
  if (const std::string* text = key.asString()) return find(std::string_view(*text), hash);
  // The hash of a container is kept with it; without it, keys that are themselves containers of
  // nearly equal containers would be compared again and again, all the way down.
  return locate(hash, [&key](const Value& other) {
    return other.valueClass() == key.valueClass() && other.hash() == key.hash() && other == key;
  });
}

size_t Dictionary::find(std::string_view key, size_t hash) const {
  return locate(hash, [key](const Value& other) {
    const std::string* text = other.asString();
    return text && *text == key;
  });
}

size_t Dictionary::find(const Value& key) const {
  return find(key, slots_.empty() ? 0 : key.hash());
}

size_t Dictionary::find(std::string_view key) const {
  return find(key, slots_.empty() ? 0 : Value::hashOfString(key));
}

void Dictionary::addToIndex(size_t position, size_t hash) {
  const size_t mask = slots_.size() - 1;
  size_t at = hash & mask;
  while (slots_[at].position != 0) at = (at + 1) & mask;
  slots_[at] = {static_cast<uint32_t>(position + 1), upperHalf(hash)};
}

void Dictionary::rebuildIndex(size_t slots) {
  size_t size = 16;
  while (size < slots) size *= 2;
  slots_.assign(size, Slot());
  std::erase_if(entries_, [](const Entry& entry) { return !entry.first; });
  for (size_t i = 0; i < entries_.size(); ++i) addToIndex(i, entries_[i].first.hash());
}

void Dictionary::set(Value key, Value value) {
  if (!key) return;
  const size_t hash = slots_.empty() ? 0 : key.hash();
  const size_t position = find(key, hash);
  if (position != kNotFound) {
    entries_[position].second = std::move(value);
    return;
  }
  entries_.emplace_back(std::move(key), std::move(value));
  ++count_;
  // Removed entries keep their slots until the next rebuild, so the load counts them too.
  if (slots_.empty() && entries_.size() <= kScanLimit) return;
  if (slots_.size() < entries_.size() * 2) {
    rebuildIndex(count_ * 4);
  } else {
    addToIndex(entries_.size() - 1, hash);
  }
}

void Dictionary::set(std::string_view key, Value value) {
  set(Value::string(std::string(key)), std::move(value));
}

bool Dictionary::removeAt(size_t position) {
  if (position == kNotFound) return false;
  if (slots_.empty()) {
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(position));
  } else {
    entries_[position] = Entry();
  }
  --count_;
  return true;
}

bool Dictionary::remove(const Value& key) { return removeAt(find(key)); }
bool Dictionary::remove(std::string_view key) { return removeAt(find(key)); }

Value Dictionary::get(const Value& key) const {
  const size_t position = find(key);
  return position == kNotFound ? Value() : entries_[position].second;
}

Value Dictionary::get(std::string_view key) const {
  const size_t position = find(key);
  return position == kNotFound ? Value() : entries_[position].second;
}

const std::string* Dictionary::getString(std::string_view key) const {
  const size_t position = find(key);
  return position == kNotFound ? nullptr : entries_[position].second.asString();
}

bool operator==(const Dictionary& a, const Dictionary& b) {
  if (a.size() != b.size()) return false;
  for (const auto& [key, value] : a) {
    const size_t position = b.find(key);
    if (position == kNotFound || !(b.entries_[position].second == value)) return false;
  }
  return true;
}

}  // namespace pallion
