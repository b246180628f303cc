#include "platform/preferences.h"

#include "configuration/global_configuration.h"
#include "platform/product_log.h"

namespace pallion {

namespace {

constexpr std::string_view kDomain = "com.orlix.pallion";
constexpr std::string_view kUpdatedPluginContainersKey =
    "UpdatedPluginContainersWithParentIDWithSafeHarborFix";

Value preference(std::string_view key) { return Preferences::current().value(key, kDomain); }

}  // namespace

void PLGlobalConfiguration::readPreferences() {
  constexpr char kFunction[] = "-[PLGlobalConfiguration init]";
  // Anything but the boolean itself counts as the default.
  lowerInstallPriority_ = preference("LowerInstallPriority").asBoolean() != false;
  if (!lowerInstallPriority_) {
    LogWrite(kLogNotice, kFunction,
             "Not running installation at background priority because of a set default");
  }
  skipDeviceFamilyCheck_ = preference("SkipDeviceFamilyCheck").asBoolean() == true;
  if (skipDeviceFamilyCheck_) {
    LogWrite(kLogNotice, kFunction, "Skipping device family check because of a set default");
  }
  skipThinningCheck_ = preference("SkipThinningCheck").asBoolean() == true;
  if (skipThinningCheck_) {
    LogWrite(kLogNotice, kFunction, "Skipping device thinning check because of a set default");
  }
  if (const Value number = preference("SimultaneousInstallsNumber");
      number.isKindOfClass(Value::Class::kNumber)) {
    nSimultaneousInstallations_ = number.int64Value();
    LogWrite(kLogNotice, kFunction, "Setting simultaneous installations allowed to %ld",
             nSimultaneousInstallations_);
  }
}

bool PLGlobalConfiguration::haveUpdatedPluginContainersWithParentID() const {
  const Value have = preference(kUpdatedPluginContainersKey);
  return have && have.asBoolean() != false;
}

void PLGlobalConfiguration::setHaveUpdatedPluginContainersWithParentID(bool have) const {
  Preferences::current().setValue(kUpdatedPluginContainersKey, Value::boolean(have), kDomain);
  Preferences::current().synchronize(kDomain);
}

std::optional<std::string> PLGlobalConfiguration::alternateThinningModelIdentifier() const {
  return Preferences::current().suiteString("com.orlix.briscastored", "ThinnedAppVariantID");
}

}  // namespace pallion
