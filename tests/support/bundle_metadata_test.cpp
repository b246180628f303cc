#include "support/bundle_metadata.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

#include "platform/bundle.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

namespace {

URL makeBundle(const TemporaryRoot& root, const std::string& name, const std::string& list) {
  root.makeFile(name + "/Info.plist", list.empty() ? "" : "<plist>" + list + "</plist>");
  return URL::fileURL(root / name, URL::Kind::kDirectory);
}

}  // namespace

TEST(BundleMetadata, IsReadWholeOrByKeys) {
  const TemporaryRoot root;
  const RecordedProductLog log(kLogDebug);
  const URL bundle = makeBundle(
      root, "B.app", "<dict><key>a</key><string>1</string><key>b</key><string>2</string></dict>");
  const Value a = Value::string("a");
  const Dictionary onlyA{{"a", Value::string("1")}};
  const Dictionary whole{{"a", Value::string("1")}, {"b", Value::string("2")}};
  const std::pair<Value, Dictionary> rows[] = {{{}, whole},
                                               {Value::set({a, Value::string("lacking")}), onlyA},
                                               {Value::set({Value::string("b"), a}), whole},
                                               {Value::set({}), {}}};
  for (const auto& [keys, expected] : rows) {
    std::optional<Dictionary> info = PLLoadInfoPlist(bundle, keys);
    ASSERT_TRUE(info) << description(keys);
    EXPECT_EQ(*info, expected) << description(*info);
    // The caller's own: the next read doesn't see what becomes of it.
    info->set("a", Value::string("changed"));
    EXPECT_EQ(PLLoadInfoPlist(bundle, keys), expected);
  }
  EXPECT_TRUE(log.lines.empty());
}

TEST(BundleMetadata, SaysWhyThereIsNone) {
  const TemporaryRoot root;
  const URL damaged = makeBundle(root, "damaged.app", "<dict>");
  const URL list = makeBundle(root, "list.app", "<array/>");
  const URL fifo = URL::fileURL(root.makeDirectory("fifo.app") + "/");
  ASSERT_EQ(mkfifo((root / "fifo.app/Info.plist").c_str(), 0600), 0);
  const URL empty = URL::fileURL(root.makeDirectory("empty.app") + "/");
  const URL link = URL::fileURL(root.makeLink("link.app", "list.app"));
  const auto unread = [](const URL& url) {
    return "3 PLLoadInfoPlist: QXBundleGetInfoDictionary failed for bundle " + description(url);
  };
  const auto unfiltered = [](const URL& url) {
    return "3 PLLoadInfoPlist: Failed to get filtered Info.plist with keys (k) from bundle "
           "QXBundle " +
           url.path();
  };
  const std::string missing =
      "7 PLLoadInfoPlist: Missing Info.plist at " + description(empty) + "Info.plist";
  const std::string noBundle =
      "3 PLLoadInfoPlist: Failed to create QXBundle from URL " + description(link);
  const std::string noDictionary =
      "3 PLLoadInfoPlist: Object returned from _QXBundleCreateFilteredInfoPlist was not a "
      "dictionary, was type array";
  const struct {
    URL bundle;
    std::string whole;
    std::string filtered;
  } rows[] = {{empty, missing, missing},
              {damaged, unread(damaged), unfiltered(damaged)},
              {fifo, unread(fifo), unfiltered(fifo)},
              {link, noBundle, noBundle},
              {list, unread(list), noDictionary}};
  for (const auto& row : rows) {
    const RecordedProductLog log(kLogDebug);
    EXPECT_FALSE(PLLoadInfoPlist(row.bundle));
    EXPECT_FALSE(PLLoadInfoPlist(row.bundle, Value::set({Value::string("k")})));
    EXPECT_EQ(log.lines, (std::vector<std::string>{row.whole, row.filtered}));
  }
}

TEST(BundleMetadata, IsReadOneBundleAtATime) {
  const TemporaryRoot root;
  const RecordedProductLog log;
  const URL bundle = makeBundle(root, "B.app", "");
  static std::atomic<int> alive = 0, most = 0;
  QXBundle::replace([](const URL&) {
    most = std::max<int>(most, ++alive);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    --alive;
    return std::unique_ptr<QXBundle>();
  });
  std::vector<std::jthread> threads(3);
  for (std::jthread& thread : threads) thread = std::jthread([&] { PLLoadInfoPlist(bundle); });
  while (alive == 0) std::this_thread::yield();
  // A missing list is answered while another bundle is being read.
  EXPECT_FALSE(PLLoadInfoPlist(root.url()));
  EXPECT_EQ(alive, 1);
  threads.clear();
  QXBundle::replace(nullptr);
  EXPECT_EQ(most, 1);
  EXPECT_EQ(log.lines.size(), 3U);
}

}  // namespace pallion::test
