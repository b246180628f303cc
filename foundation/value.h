#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pallion {

class Dictionary;

// A dynamically typed value: a shared handle to an immutable object of one of the property-list
// classes or a set, or none. Copying a handle shares the object. Any thread may use its own handle.
class Value {
 public:
  enum class Class { kNone, kString, kNumber, kBoolean, kData, kDate, kArray, kDictionary, kSet };
  using Array = std::vector<Value>;

  Value() = default;
  Value(const Value& other) : object_(other.object_) {
    if (object_) object_->handles.fetch_add(1, std::memory_order_relaxed);
  }
  Value(Value&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Value& operator=(Value other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Value() {
    // The last handle sees what was done by way of all others.
    if (object_ && object_->handles.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy(object_);
  }

  // Each makes a new object. Strings and data are bytes.
  static Value string(std::string text);
  static Value boolean(bool truth);
  static Value integer(int64_t number);
  static Value unsignedInteger(uint64_t number);
  static Value real(double number);
  static Value data(std::string bytes);
  // Seconds since 2001-01-01 00:00:00 UTC.
  static Value date(double seconds);
  static Value array(Array members);
  static Value dictionary(Dictionary entries);
  // Of members that are equal the first is kept.
  static Value set(Array members);

  explicit operator bool() const { return object_ != nullptr; }
  [[nodiscard]] Class valueClass() const;
  // True for a value of that class or of one derived from it: a boolean is a number. None is of no
  // class.
  [[nodiscard]] bool isKindOfClass(Class k) const;
  // True when both handles share one object, or both are none.
  [[nodiscard]] bool isIdenticalTo(const Value& other) const { return object_ == other.object_; }

  // The content, or null for another class. Lives as long as a handle to the object.
  [[nodiscard]] const std::string* asString() const;
  [[nodiscard]] const std::string* asData() const;
  [[nodiscard]] const Array* asArray() const;
  [[nodiscard]] const Array* asSet() const;
  [[nodiscard]] const Dictionary* asDictionary() const;
  [[nodiscard]] std::optional<bool> asBoolean() const;
  [[nodiscard]] std::optional<double> asDate() const;

  // Numbers, booleans included; of any other class 0. A fraction is cut off, what does not fit is
  // held at the limit (but a negative number taken as unsigned, and a large one taken as signed,
  // keep their 64 bits).
  [[nodiscard]] int64_t int64Value() const;
  [[nodiscard]] uint64_t uint64Value() const;
  [[nodiscard]] double doubleValue() const;
  // How the number is held: a fraction, an integer above INT64_MAX, or any other integer.
  [[nodiscard]] bool isReal() const;
  [[nodiscard]] bool isLargeUnsigned() const;

  // Equal content. A boolean equals booleans only; other numbers compare by their numerical value.
  friend bool operator==(const Value& a, const Value& b);
  // Equal values have equal hashes. Keyed with a random number of this process.
  [[nodiscard]] size_t hash() const;
  static size_t hashOfString(std::string_view text);

 private:
  enum class Kind : uint8_t;
  // As large as its content needs and no larger: with very many texts, memory is what takes the
  // time. That is why handles are counted here, and not by a std::shared_ptr.
  struct Object {
    const Kind kind;
    mutable std::atomic<uint32_t> handles{1};  // more would take 32 GiB
    explicit Object(Kind k) : kind(k) {}
  };
  template <class T>
  struct Holder;
  template <class T>
  static Value make(Kind kind, T content);
  // Null when the object is of another kind.
  template <class T>
  [[nodiscard]] const T* held(Kind kind) const;
  [[nodiscard]] size_t hashOfContainer() const;
  static void destroy(const Object* object);
  explicit Value(const Object* object) : object_(object) {}
  const Object* object_ = nullptr;
};

// Keys and values in insertion order. Any value can be a key; strings are the ordinary case.
// Copying it makes a mutable copy that shares the values. Look-up takes constant time.
class Dictionary {
 public:
  using Entry = std::pair<Value, Value>;

  Dictionary() = default;
  Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries);

  void reserve(size_t count);
  // Says that `key` will be set soon: its place in a large index is on its way from memory while
  // the caller makes the value.
  void expect(const Value& key) const;
  // An equal key keeps its place and gets the new value.
  void set(Value key, Value value);
  void set(std::string_view key, Value value);
  // True when the key was there.
  bool remove(const Value& key);
  bool remove(std::string_view key);

  // The value, or none.
  [[nodiscard]] Value get(const Value& key) const;
  [[nodiscard]] Value get(std::string_view key) const;
  // The text of a string value, or null.
  [[nodiscard]] const std::string* getString(std::string_view key) const;
  [[nodiscard]] size_t size() const { return count_; }
  [[nodiscard]] bool empty() const { return count_ == 0; }

  // Goes over the entries in insertion order.
  class Iterator {
   public:
    Iterator(const Entry* at, const Entry* end) : at_(at), end_(end) { skipRemoved(); }
    const Entry& operator*() const { return *at_; }
    const Entry* operator->() const { return at_; }
    Iterator& operator++() {
      ++at_;
      skipRemoved();
      return *this;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) { return a.at_ == b.at_; }

   private:
    void skipRemoved() {
      while (at_ != end_ && !at_->first) ++at_;
    }
    const Entry* at_;
    const Entry* end_;
  };
  [[nodiscard]] Iterator begin() const {
    return {entries_.data(), entries_.data() + entries_.size()};
  }
  [[nodiscard]] Iterator end() const {
    const Entry* end = entries_.data() + entries_.size();
    return {end, end};
  }

  // The same keys with equal values, in any order.
  friend bool operator==(const Dictionary& a, const Dictionary& b);

 private:
  struct Slot {
    uint32_t position = 0;  // in entries_, plus 1; 0 for a free slot
    uint32_t hash = 0;      // its upper half
  };

  // Positions in entries_. `hash` is the key's; it counts only while there is an index.
  template <class Equals>
  [[nodiscard]] size_t locate(size_t hash, const Equals& equals) const;
  [[nodiscard]] size_t find(const Value& key, size_t hash) const;
  [[nodiscard]] size_t find(std::string_view key, size_t hash) const;
  [[nodiscard]] size_t find(const Value& key) const;
  [[nodiscard]] size_t find(std::string_view key) const;
  bool removeAt(size_t position);
  void addToIndex(size_t position, size_t hash);
  void rebuildIndex(size_t slots);

  std::vector<Entry> entries_;  // a removed entry has no key
  std::vector<Slot> slots_;     // open addressing by hash; none while there are few entries
  size_t count_ = 0;
};

// "%@": text as it is, numbers in decimal, data as <hexadecimal>, dates as RFC 3339, lists as "(a,
// b)", dictionaries as
// "{key = value; key = value}", none as "(null)".
void appendDescription(std::string& out, const Value& value);
void appendDescription(std::string& out, const Dictionary& dictionary);

// "string", "number", "boolean", "data", "date", "array", "dictionary", "set" or "none".
std::string_view nameOfClass(Value::Class k);

// Seconds since 2001-01-01 UTC as "YYYY-MM-DDThh:mm:ssZ", whole seconds rounded down. Years 1 to
// 9999; empty otherwise.
std::string dateText(double seconds);

}  // namespace pallion
