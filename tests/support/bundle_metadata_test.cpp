#include "support/bundle_metadata.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "platform/bundle.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

namespace {

const std::string kLog = "PLLoadInfoPlist: ";

std::string plist(const std::string& body) {
  return R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0">)" + body + "</plist>";
}

URL makeBundle(const TemporaryRoot& root, const std::string& name, const std::string& info) {
  root.makeFile(name + "/Info.plist", info);
  return URL::fileURL(root / name, URL::Kind::kDirectory);
}

// A bundle whose read takes a while, and which counts how many there are at once.
class SlowBundle : public QXBundle {
 public:
  static inline std::atomic<int> alive = 0;
  static inline std::atomic<int> most = 0;
  static inline std::atomic<int> made = 0;

  static std::unique_ptr<QXBundle> make(const URL& url) {
    return std::make_unique<SlowBundle>(url);
  }
  explicit SlowBundle(URL url) : url_(std::move(url)) {
    ++made;
    const int now = ++alive;
    if (now > most) most = now;
  }
  ~SlowBundle() override { --alive; }
  [[nodiscard]] const URL& bundleURL() const override { return url_; }
  InfoState infoState() override { return InfoState::kRead; }
  int infoErrorNumber() override { return 0; }
  const Dictionary* infoDictionary() override {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return &info_;
  }
  Value filteredInfoDictionary(const std::vector<std::string>& /*keys*/) override { return {}; }

 private:
  URL url_;
  Dictionary info_;
};

class Replaced {
 public:
  explicit Replaced(QXBundle::Factory factory) : before_(QXBundle::replace(factory)) {}
  Replaced(const Replaced&) = delete;
  Replaced& operator=(const Replaced&) = delete;
  ~Replaced() { QXBundle::replace(before_); }

 private:
  QXBundle::Factory before_;
};

}  // namespace

TEST(BundleMetadata, IsReadWholeOrByKeys) {
  const TemporaryRoot root;
  const RecordedProductLog log(kLogDebug);
  const URL bundle = makeBundle(root, "B.app",
                                plist("<dict><key>QXBundleIdentifier</key><string>com.b</string>"
                                      "<key>QXBundleVersion</key><string>7</string></dict>"));
  const Value identifier = Value::string("com.b");
  const Dictionary whole{{"QXBundleIdentifier", identifier},
                         {"QXBundleVersion", Value::string("7")}};
  const auto keys = [](const std::vector<std::string>& names) {
    Value::Array members;
    for (const std::string& name : names) members.push_back(Value::string(name));
    return Value::set(members);
  };
  const std::pair<Value, Dictionary> rows[] = {
      {{}, whole},
      {keys({"QXBundleIdentifier", "lacking"}), {{"QXBundleIdentifier", identifier}}},
      {keys({"QXBundleVersion", "QXBundleIdentifier"}), whole},
      {keys({"lacking"}), {}},
      {keys({}), {}}};
  for (const auto& [set, expected] : rows) {
    std::optional<Dictionary> info = PLLoadInfoPlist(bundle, set);
    ASSERT_TRUE(info) << description(set);
    EXPECT_EQ(*info, expected) << description(*info);
    // The caller's own: the next read doesn't see what becomes of it.
    info->set("QXBundleIdentifier", Value::string("changed"));
    EXPECT_EQ(PLLoadInfoPlist(bundle, set), expected);
  }
  EXPECT_TRUE(log.lines.empty());
}

TEST(BundleMetadata, SaysWhyThereIsNone) {
  const TemporaryRoot root;
  const URL damaged = makeBundle(root, "damaged.app", "<plist><dict>");
  const URL list = makeBundle(root, "list.app", plist("<array/>"));
  const std::string fifoBundle = root.makeDirectory("fifo.app");
  ASSERT_EQ(mkfifo((fifoBundle + "/Info.plist").c_str(), 0600), 0);
  const URL fifo = URL::fileURL(fifoBundle + "/");
  const URL empty = URL::fileURL(root.makeDirectory("empty.app") + "/");
  const URL link = URL::fileURL(root.makeLink("link.app", "list.app"));
  const auto dictionaryFailed = [](const URL& url) {
    return "3 " + kLog + "QXBundleGetInfoDictionary failed for bundle " + description(url);
  };
  const auto filterFailed = [](const URL& url) {
    return "3 " + kLog + "Failed to get filtered Info.plist with keys (k) from bundle QXBundle " +
           url.path();
  };
  const std::string missing =
      "7 " + kLog + "Missing Info.plist at file://" + (root / "empty.app/Info.plist");
  const std::string noBundle =
      "3 " + kLog + "Failed to create QXBundle from URL " + description(link);
  struct Row {
    URL bundle;
    std::string whole;
    std::string filtered;
  };
  const Row rows[] = {
      {empty, missing, missing},
      {damaged, dictionaryFailed(damaged), filterFailed(damaged)},
      {fifo, dictionaryFailed(fifo), filterFailed(fifo)},
      {link, noBundle, noBundle},
      {list, dictionaryFailed(list),
       "3 " + kLog +
           "Object returned from _QXBundleCreateFilteredInfoPlist was not a dictionary, was type "
           "array"}};
  for (const Row& row : rows) {
    const RecordedProductLog log(kLogDebug);
    EXPECT_FALSE(PLLoadInfoPlist(row.bundle));
    EXPECT_FALSE(PLLoadInfoPlist(row.bundle, Value::set({Value::string("k")})));
    EXPECT_EQ(log.lines, (std::vector<std::string>{row.whole, row.filtered}));
  }
}

TEST(BundleMetadata, IsReadOneBundleAtATime) {
  const TemporaryRoot root;
  const URL bundle = makeBundle(root, "B.app", "");
  const URL empty = URL::fileURL(root.makeDirectory("empty.app") + "/");
  const Replaced replaced(&SlowBundle::make);
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) threads.emplace_back([&] { PLLoadInfoPlist(bundle); });
  while (SlowBundle::alive == 0) std::this_thread::yield();
  // A missing list is answered while another bundle is being read.
  EXPECT_FALSE(PLLoadInfoPlist(empty));
  EXPECT_EQ(SlowBundle::made, 1);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(SlowBundle::most, 1);
  EXPECT_EQ(SlowBundle::made, 3);
}

}  // namespace pallion::test
