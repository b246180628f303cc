#include "foundation/format.h"

#include <cstdio>
#include <cstdlib>

namespace pallion {

namespace {

void appendLiteral(std::string& out, const char* begin, const char* end) {
  for (; begin != end; ++begin) {
    out += *begin;
    if (*begin == '%') ++begin;  // "%%" stands for one
  }
}

}  // namespace

std::string formatArguments(const char* text, std::span<const FormatArgument> arguments) {
  using detail::Conversion;
  std::string out;
  size_t next = 0;
  while (true) {
    const char* literal = text;
    const char* literalEnd = nullptr;
    const Conversion conversion = detail::nextConversion(text, literalEnd);
    appendLiteral(out, literal, literalEnd);
    if (conversion == Conversion::kEnd) return out;
    // Cannot happen for a checked text; a wrong one must not read beyond the arguments.
    if (conversion == Conversion::kBad || next == arguments.size()) std::abort();
    const FormatArgument& argument = arguments[next++];
    switch (conversion) {
      case Conversion::kObject:
      case Conversion::kText:
        argument.appendObject(out);
        break;
      case Conversion::kInt:
      case Conversion::kLong:
      case Conversion::kLongLong:
        out += std::to_string(argument.asSigned());
        break;
      case Conversion::kUnsigned:
      case Conversion::kUnsignedLong:
        out += std::to_string(argument.asUnsigned());
        break;
      case Conversion::kHex8: {
        char digits[sizeof "FFFFFFFF"];
        std::snprintf(digits, sizeof digits, "%08X", static_cast<unsigned>(argument.asUnsigned()));
        out += digits;
        break;
      }
      case Conversion::kEnd:
      case Conversion::kBad:
        break;
    }
  }
}

}  // namespace pallion
