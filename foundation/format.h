#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

// Messages in the notation of their texts: %@ (textual description of an object), %s, %d, %u, %ld,
// %lu, %lld, %zd, %zu, %08X and %%. The format of a message is checked against its arguments when
// the program is compiled, and nothing is formatted for a message that nobody will read: the
// arguments are only referred to until `format` is called.

namespace pallion {

// Textual descriptions. Every type that can stand for "%@" has an overload of appendDescription in
// this namespace.
inline void appendDescription(std::string& out, std::string_view text) { out += text; }
inline void appendDescription(std::string& out, const std::string& text) { out += text; }
inline void appendDescription(std::string& out, const char* text) { out += text ? text : "(null)"; }

// An absent object prints as "(null)", a list as "(first, second)".
template <class T>
void appendDescription(std::string& out, const std::optional<T>& object);
template <class T>
void appendDescription(std::string& out, const std::vector<T>& list);

template <class T>
concept Describable = requires(std::string& out, const T& object) {
  appendDescription(out, object);
};

template <class T>
void appendDescription(std::string& out, const std::optional<T>& object) {
  if (object) {
    appendDescription(out, *object);
  } else {
    out += "(null)";
  }
}

template <class T>
void appendDescription(std::string& out, const std::vector<T>& list) {
  out += '(';
  for (size_t i = 0; i < list.size(); ++i) {
    if (i != 0) out += ", ";
    appendDescription(out, list[i]);
  }
  out += ')';
}

template <Describable T>
std::string description(const T& object) {
  std::string out;
  appendDescription(out, object);
  return out;
}

// One argument of a message, by reference. Valid as long as the object it was made from.
class FormatArgument {
 public:
  template <std::signed_integral T>
  explicit FormatArgument(const T& number) : signed_(number) {}
  template <std::unsigned_integral T>
  explicit FormatArgument(const T& number) : unsigned_(number) {}
  explicit FormatArgument(const char* const& text) : object_(text), append_(&appendText) {}
  template <class T>
  requires(Describable<T> && !std::integral<T> &&
           !std::is_pointer_v<std::decay_t<T>>) explicit FormatArgument(const T& object)
      : object_(&object), append_([](std::string& out, const void* pointer) {
          appendDescription(out, *static_cast<const T*>(pointer));
        }) {}

  void appendObject(std::string& out) const { append_(out, object_); }
  [[nodiscard]] int64_t asSigned() const { return signed_; }
  [[nodiscard]] uint64_t asUnsigned() const { return unsigned_; }

 private:
  static void appendText(std::string& out, const void* text) {
    appendDescription(out, static_cast<const char*>(text));
  }

  union {
    int64_t signed_;
    uint64_t unsigned_;
    const void* object_;
  };
  void (*append_)(std::string&, const void*) = nullptr;
};

// Formats at run time. `text` must have been checked by FormatString against arguments of these
// types.
std::string formatArguments(const char* text, std::span<const FormatArgument> arguments);

namespace detail {

enum class Conversion {
  kEnd,
  kObject,
  kText,
  kInt,
  kUnsigned,
  kLong,
  kUnsignedLong,
  kLongLong,
  kHex8,
  kBad
};

// Reads the next conversion of `text` and leaves `text` behind it. Text before it is skipped.
constexpr Conversion nextConversion(const char*& text, const char*& literalEnd) {
  for (; *text != '\0'; ++text) {
    if (*text != '%') continue;
    if (text[1] == '%') {
      ++text;
      continue;
    }
    literalEnd = text;
    struct Spelling {
      std::string_view letters;
      Conversion conversion;
    };
    constexpr Spelling kSpellings[] = {
        {"@", Conversion::kObject},        {"s", Conversion::kText},
        {"d", Conversion::kInt},           {"u", Conversion::kUnsigned},
        {"ld", Conversion::kLong},         {"lu", Conversion::kUnsignedLong},
        {"lld", Conversion::kLongLong},    {"zd", Conversion::kLong},
        {"zu", Conversion::kUnsignedLong}, {"08X", Conversion::kHex8},
    };
    ++text;
    for (const Spelling& spelling : kSpellings) {
      size_t i = 0;
      while (i < spelling.letters.size() && text[i] == spelling.letters[i]) ++i;
      if (i == spelling.letters.size()) {
        text += i;
        return spelling.conversion;
      }
    }
    return Conversion::kBad;
  }
  literalEnd = text;
  return Conversion::kEnd;
}

template <class T>
constexpr bool accepts(Conversion conversion) {
  using U = std::remove_cvref_t<T>;
  constexpr bool kIsText =
      std::is_convertible_v<const U&, const char*> || std::is_same_v<U, std::string>;
  switch (conversion) {
    case Conversion::kObject:
      return Describable<U> && !std::integral<U>;
    case Conversion::kText:
      return kIsText;
    case Conversion::kInt:
      return std::is_same_v<U, int>;
    case Conversion::kUnsigned:
    case Conversion::kHex8:
      return std::is_same_v<U, unsigned>;
    case Conversion::kLong:
      return std::is_same_v<U, long>;
    case Conversion::kUnsignedLong:
      return std::is_same_v<U, unsigned long>;
    case Conversion::kLongLong:
      return std::is_same_v<U, long long>;
    case Conversion::kEnd:
    case Conversion::kBad:
      return false;
  }
  return false;
}

// Not constexpr on purpose: reaching a call of it stops the compilation and names the fault.
void messageFormatDoesNotFitItsArguments();

}  // namespace detail

// A message text, checked while it is compiled against the types of its arguments. Use as
// `template <class... Args> void f(FormatString<std::type_identity_t<Args>...> text, const Args&...
// args)`.
template <class... Args>
class FormatString {
 public:
  // NOLINTNEXTLINE(google-explicit-constructor): a literal is meant to turn into a checked format
  // by itself.
  consteval FormatString(const char* text) : text_(text) {
    const char* rest = text;
    const char* literalEnd = nullptr;
    const bool fits =
        (detail::accepts<Args>(detail::nextConversion(rest, literalEnd)) && ... && true);
    if (!fits || detail::nextConversion(rest, literalEnd) != detail::Conversion::kEnd) {
      detail::messageFormatDoesNotFitItsArguments();
    }
  }
  [[nodiscard]] constexpr const char* text() const { return text_; }

 private:
  const char* text_;
};

// Calls `use` with the arguments as one list, which is valid during the call.
template <class Use, class... Args>
auto withArguments(const Use& use, const Args&... args) {
  if constexpr (sizeof...(Args) == 0) {
    return use(std::span<const FormatArgument>());
  } else {
    const FormatArgument arguments[] = {FormatArgument(args)...};
    return use(std::span<const FormatArgument>(arguments));
  }
}

template <class... Args>
std::string format(FormatString<std::type_identity_t<Args>...> text, const Args&... args) {
  return withArguments(
      [&](std::span<const FormatArgument> list) { return formatArguments(text.text(), list); },
      args...);
}

}  // namespace pallion
