#include "foundation/format.h"
#include "platform/preferences.h"
#include "programs/common/console.h"
#include "programs/common/exit_status.h"
#include "programs/palliontool/commands.h"
#include "programs/palliontool/whole_number.h"

namespace pallion::tool {

namespace {

constexpr std::string_view kDomain = "com.orlix.pallion";

Value valueOf(const std::string& text) {
  if (text == "true" || text == "false") return Value::boolean(text == "true");
  if (const auto number = wholeNumber<int64_t>(text)) return Value::integer(*number);
  if (const auto large = wholeNumber<uint64_t>(text)) return Value::unsignedInteger(*large);
  return Value::string(text);
}

}  // namespace

int getPreference(const Options& options) {
  const Value value = Preferences::current().value(options.key, kDomain);
  if (!value) {
    complain(options.key + ": not set");
    return kExitFailure;
  }
  const std::optional<bool> truth = value.asBoolean();
  const std::string text = truth ? (*truth ? "true" : "false") : description(value);
  return print(text + "\n") ? kExitSuccess : kExitFailure;
}

int setPreference(const Options& options) {
  Preferences::current().setValue(options.key, valueOf(options.value), kDomain);
  if (Preferences::current().synchronize(kDomain)) return kExitSuccess;
  complain(options.key + ": could not be stored");
  return kExitFailure;
}

}  // namespace pallion::tool
