#include "foundation/value.h"

namespace pallion {

namespace {

// Up to this many entries a scan is quicker than hashing.
constexpr size_t kScanLimit = 8;
constexpr size_t kNotFound = SIZE_MAX;

}  // namespace

Dictionary::Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries) {
  for (const auto& [key, value] : entries) set(key, value);
}

void Dictionary::reserve(size_t count) {
  entries_.reserve(count);
  if (count > kScanLimit && slots_.size() < count * 2) rebuildIndex(count * 2);
}

template <class Equals>
size_t Dictionary::find(size_t hash, const Equals& equals) const {
  const size_t mask = slots_.size() - 1;
  for (size_t slot = hash & mask; slots_[slot] != 0; slot = (slot + 1) & mask) {
    const size_t position = slots_[slot] - 1;
    if (equals(entries_[position].first)) return position;
  }
  return kNotFound;
}

size_t Dictionary::find(const Value& key) const {
  if (const std::string* text = key.asString()) return find(std::string_view(*text));
  const auto equals = [&key](const Value& other) { return other && other == key; };
  if (!slots_.empty()) return find(key.hash(), equals);
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (equals(entries_[i].first)) return i;
  }
  return kNotFound;
}

size_t Dictionary::find(std::string_view key) const {
  const auto equals = [key](const Value& other) {
    const std::string* text = other.asString();
    return text && *text == key;
  };
  if (!slots_.empty()) return find(Value::hashOfString(key), equals);
  for (size_t i = 0; i < entries_.size(); ++i) {
    if (equals(entries_[i].first)) return i;
  }
  return kNotFound;
}

void Dictionary::rebuildIndex(size_t slots) {
  size_t size = 16;
  while (size < slots) size *= 2;
  slots_.assign(size, 0);
  std::erase_if(entries_, [](const Entry& entry) { return !entry.first; });
  for (size_t i = 0; i < entries_.size(); ++i) {
    size_t slot = entries_[i].first.hash() & (size - 1);
    while (slots_[slot] != 0) slot = (slot + 1) & (size - 1);
    slots_[slot] = static_cast<uint32_t>(i + 1);
  }
}

void Dictionary::set(Value key, Value value) {
  if (!key) return;
  const size_t position = find(key);
  if (position != kNotFound) {
    entries_[position].second = std::move(value);
    return;
  }
  entries_.emplace_back(std::move(key), std::move(value));
  ++count_;
  // Removed entries keep their slots until the next rebuild, so the load counts them too.
  if (slots_.empty() && entries_.size() <= kScanLimit) return;
  if (slots_.size() < entries_.size() * 2) {
    rebuildIndex(entries_.size() * 4);
    return;
  }
  const size_t mask = slots_.size() - 1;
  size_t slot = entries_.back().first.hash() & mask;
  while (slots_[slot] != 0) slot = (slot + 1) & mask;
  slots_[slot] = static_cast<uint32_t>(entries_.size());
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
    const Value other = b.get(key);
    if (!other || !(other == value)) return false;
  }
  return true;
}

}  // namespace pallion
