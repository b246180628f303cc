#include "platform/preferences.h"

#include <gtest/gtest.h>

#include "configuration/global_configuration.h"
#include "foundation/property_list.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {
namespace {

constexpr const char* kDomain = "com.orlix.pallion";
constexpr const char* kInit = "5 -[PLGlobalConfiguration init]: ";

// Stands in for the store of the running system for its lifetime.
class PreferenceStore {
 public:
  PreferenceStore() : store_(root_.url()) { Preferences::replace(&store_); }
  PreferenceStore(const PreferenceStore&) = delete;
  PreferenceStore& operator=(const PreferenceStore&) = delete;
  ~PreferenceStore() { Preferences::replace(nullptr); }

  void set(const char* key, const Value& value) { store_.setValue(key, value, kDomain); }
  void synchronize() { EXPECT_TRUE(store_.synchronize(kDomain)); }
  [[nodiscard]] const TemporaryRoot& root() const { return root_; }

 private:
  TemporaryRoot root_;
  FilePreferences store_;
};

struct Row {
  const char* what;
  Value value;
  bool lowerPriority;
  bool skip;
  long installations;
  bool isNumber;
  bool haveUpdated;
};

const std::vector<Row>& rows() {
  static const std::vector<Row> kRows{
      {"absent", Value(), true, false, 4, false, false},
      {"true", Value::boolean(true), true, true, 1, true, true},
      {"false", Value::boolean(false), false, false, 0, true, false},
      {"0", Value::integer(0), true, false, 0, true, true},
      {"1", Value::integer(1), true, false, 1, true, true},
      {"-3", Value::integer(-3), true, false, -3, true, true},
      {"smallest", Value::integer(INT64_MIN), true, false, INT64_MIN, true, true},
      {"2.9", Value::real(2.9), true, false, 2, true, true},
      {"text false", Value::string("false"), true, false, 4, false, true},
      {"text 7", Value::string("7"), true, false, 4, false, true},
      {"data", Value::data("7"), true, false, 4, false, true},
      {"date", Value::date(7), true, false, 4, false, true},
      {"array", Value::array({Value::boolean(false)}), true, false, 4, false, true},
      {"dictionary", Value::dictionary({}), true, false, 4, false, true},
  };
  return kRows;
}

TEST(Settings, AreReadOnceFromTheirKeys) {
  const char* keys[] = {"LowerInstallPriority", "SkipDeviceFamilyCheck", "SkipThinningCheck",
                        "SimultaneousInstallsNumber"};
  constexpr size_t kAll = std::size(keys);
  for (const Row& row : rows()) {
    for (size_t only = 0; only <= kAll; ++only) {
      const auto isSet = [&](size_t key) { return only == kAll || only == key; };
      PreferenceStore store;
      for (size_t key = 0; key < kAll; ++key) {
        if (isSet(key)) store.set(keys[key], row.value);
      }
      store.synchronize();
      RecordedProductLog log;
      const PLGlobalConfiguration c{URL()};
      SCOPED_TRACE(std::string(row.what) + " for " + (only == kAll ? "all" : keys[only]));
      EXPECT_EQ(c.lowerInstallPriority(), !isSet(0) || row.lowerPriority);
      EXPECT_EQ(c.skipDeviceFamilyCheck(), isSet(1) && row.skip);
      EXPECT_EQ(c.skipThinningCheck(), isSet(2) && row.skip);
      EXPECT_EQ(c.nSimultaneousInstallations(), isSet(3) ? row.installations : 4);
      std::vector<std::string> lines;
      const auto expectLine = [&](const std::string& line) { lines.push_back(kInit + line); };
      if (!c.lowerInstallPriority())
        expectLine("Not running installation at background priority because of a set default");
      if (c.skipDeviceFamilyCheck())
        expectLine("Skipping device family check because of a set default");
      if (c.skipThinningCheck())
        expectLine("Skipping device thinning check because of a set default");
      if (isSet(3) && row.isNumber)
        expectLine("Setting simultaneous installations allowed to " +
                   std::to_string(row.installations));
      EXPECT_EQ(log.lines, lines);

      for (const char* key : keys) store.set(key, Value::boolean(true));
      EXPECT_EQ(c.skipThinningCheck(), isSet(2) && row.skip) << "changed later";
    }
  }
}

TEST(Settings, OfAStoreThatCannotBeReadAreAllAtTheirDefaults) {
  PreferenceStore store;
  store.root().makeFile("ByHost");
  RecordedProductLog log;
  const PLGlobalConfiguration c{URL()};
  EXPECT_TRUE(c.lowerInstallPriority());
  EXPECT_FALSE(c.skipDeviceFamilyCheck());
  EXPECT_FALSE(c.skipThinningCheck());
  EXPECT_EQ(c.nSimultaneousInstallations(), 4);
  EXPECT_FALSE(c.haveUpdatedPluginContainersWithParentID());
  c.setHaveUpdatedPluginContainersWithParentID(true);
  EXPECT_TRUE(log.lines.empty());
}

TEST(Settings, TellOnEveryCallWhetherPluginContainersWereUpdated) {
  constexpr const char* kKey = "UpdatedPluginContainersWithParentIDWithSafeHarborFix";
  PreferenceStore store;
  const PLGlobalConfiguration c{URL()};
  for (const Row& row : rows()) {
    store.set(kKey, row.value);
    store.synchronize();
    EXPECT_EQ(c.haveUpdatedPluginContainersWithParentID(), row.haveUpdated) << row.what;
  }
  for (const bool have : {true, false, true}) {
    c.setHaveUpdatedPluginContainersWithParentID(have);
    EXPECT_EQ(c.haveUpdatedPluginContainersWithParentID(), have);
    FilePreferences stored(store.root().url());
    EXPECT_EQ(stored.value(kKey, kDomain), Value::boolean(have)) << "not in permanent storage";
  }
}

TEST(Settings, TellOnEveryCallWhichModelIsThinnedFor) {
  PreferenceStore store;
  const PLGlobalConfiguration c{URL()};
  EXPECT_EQ(c.alternateThinningModelIdentifier(), std::nullopt);
  const URL suite = URL::fileURL(store.root() / "com.orlix.briscastored.plist");
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
