#include "platform/preferences.h"

#include <gtest/gtest.h>

#include "configuration/global_configuration.h"
#include "foundation/property_list.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {
namespace {

constexpr const char* kDomain = "com.orlix.pallion";
constexpr const char* kUpdatedKey = "UpdatedPluginContainersWithParentIDWithSafeHarborFix";

// A store of its own stands in for that of the running system.
class Settings : public testing::Test {
 protected:
  Settings() { Preferences::replace(&store_); }
  ~Settings() override { Preferences::replace(nullptr); }

  TemporaryRoot root_;
  FilePreferences store_{root_.url()};
};

TEST_F(Settings, AreReadOnceButForWhetherPluginContainersWereUpdated) {
  const struct {
    const char* what;
    Value value;
    bool lowerPriority;
    bool skip;
    long installations;
    bool isNumber;
    bool haveUpdated;
  } rows[] = {
      {"absent", Value(), true, false, 4, false, false},
      {"true", Value::boolean(true), true, true, 1, true, true},
      {"false", Value::boolean(false), false, false, 0, true, false},
      {"1", Value::integer(1), true, false, 1, true, true},
      {"smallest", Value::integer(INT64_MIN), true, false, INT64_MIN, true, true},
      {"2.9", Value::real(2.9), true, false, 2, true, true},
      {"text false", Value::string("false"), true, false, 4, false, true},
  };
  const char* keys[] = {"LowerInstallPriority", "SkipDeviceFamilyCheck", "SkipThinningCheck",
                        "SimultaneousInstallsNumber"};
  for (const auto& row : rows) {
    for (size_t only = 0; only < std::size(keys); ++only) {
      SCOPED_TRACE(std::string(row.what) + " for " + keys[only]);
      for (const char* key : keys) store_.setValue(key, Value(), kDomain);
      store_.setValue(keys[only], row.value, kDomain);
      store_.setValue(kUpdatedKey, row.value, kDomain);
      RecordedProductLog log;
      const PLGlobalConfiguration c{URL()};
      for (const char* key : keys) store_.setValue(key, Value::boolean(true), kDomain);
      EXPECT_EQ(c.lowerInstallPriority(), only != 0 || row.lowerPriority);
      EXPECT_EQ(c.skipDeviceFamilyCheck(), only == 1 && row.skip);
      EXPECT_EQ(c.skipThinningCheck(), only == 2 && row.skip);
      EXPECT_EQ(c.nSimultaneousInstallations(), only == 3 ? row.installations : 4);
      EXPECT_EQ(c.haveUpdatedPluginContainersWithParentID(), row.haveUpdated);
      const std::pair<bool, std::string> texts[] = {
          {!row.lowerPriority,
           "Not running installation at background priority because of a set default"},
          {row.skip, "Skipping device family check because of a set default"},
          {row.skip, "Skipping device thinning check because of a set default"},
          {row.isNumber,
           "Setting simultaneous installations allowed to " + std::to_string(row.installations)}};
      std::vector<std::string> lines;
      if (texts[only].first)
        lines.push_back("5 -[PLGlobalConfiguration init]: " + texts[only].second);
      EXPECT_EQ(log.lines, lines);
    }
  }
}

TEST_F(Settings, AreStoredAndReadFromTheSuiteOnEveryCall) {
  const PLGlobalConfiguration c{URL()};
  for (const bool have : {true, false}) {
    c.setHaveUpdatedPluginContainersWithParentID(have);
    FilePreferences stored(root_.url());
    EXPECT_EQ(stored.value(kUpdatedKey, kDomain), Value::boolean(have));
  }
  EXPECT_EQ(c.alternateThinningModelIdentifier(), std::nullopt);
  const URL suite = URL::fileURL(root_ / "com.orlix.briscastored.plist");
  for (const Value& value : {Value::string("Model1,1"), Value::string(""), Value::integer(1)}) {
    const Dictionary content{{"ThinnedAppVariantID", value}};
    ASSERT_EQ(writePropertyListFile(Value::dictionary(content), suite, PropertyListFormat::kXML,
                                    Durability::kNotSynced),
              0);
    const std::string* text = value.asString();
    EXPECT_EQ(c.alternateThinningModelIdentifier(), text ? std::optional(*text) : std::nullopt);
  }
}

}  // namespace
}  // namespace pallion::test
