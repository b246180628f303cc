#include "platform/bundle.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "foundation/format.h"
#include "tests/helpers/temporary_root.h"

namespace pallion {
namespace {

using test::TemporaryRoot;

std::string plist(const std::string& content) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + content +
         "</plist>\n";
}

const std::string kNotes = plist(
    "<dict><key>QXBundleIdentifier</key><string>com.example.notes</string>"
    "<key>QXBundleVersion</key><string>7</string></dict>");

URL directoryURL(const std::string& path) { return URL::fileURL(path, URL::Kind::kDirectory); }

// No descriptor can be opened while it lives.
class NoDescriptors {
 public:
  NoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit none{0, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  rlimit before_{};
};

TEST(Bundle, OnlyADirectoryIsABundle) {
  const TemporaryRoot root;
  root.makeDirectory("Real.app");
  root.makeFile("File.app", "x");
  root.makeLink("Link.app", "Real.app");
  EXPECT_NE(QXBundle::bundleWithURL(directoryURL(root / "Real.app")), nullptr);
  for (const char* name : {"File.app", "Link.app", "Missing.app", "File.app/Inner.app"}) {
    EXPECT_EQ(QXBundle::bundleWithURL(directoryURL(root / name)), nullptr) << name;
  }
  EXPECT_EQ(QXBundle::bundleWithURL(directoryURL("relative")), nullptr);
}

TEST(Bundle, WhatCannotBeLookedAtIsUnreadableAndNotAbsent) {
  const TemporaryRoot root;
  // A name too long for any file system: lstat fails, which says nothing about absence.
  const auto bundle = QXBundle::bundleWithURL(directoryURL(root / std::string(300, 'x')));
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(bundle->infoState(), QXBundle::InfoState::kUnreadable);
  EXPECT_EQ(bundle->infoErrorNumber(), ENAMETOOLONG);
}

TEST(Bundle, StatesOfTheInformationPropertyList) {
  using State = QXBundle::InfoState;
  const struct {
    const char* name;
    std::function<void(const TemporaryRoot&)> make;
    State state;
    int errorNumber;
  } cases[] = {
      {"whole", [](const TemporaryRoot& r) { r.makeFile("A.app/Info.plist", kNotes); },
       State::kRead, 0},
      {"missing", [](const TemporaryRoot&) {}, State::kAbsent, ENOENT},
      {"empty", [](const TemporaryRoot& r) { r.makeFile("A.app/Info.plist"); }, State::kAbsent,
       EILSEQ},
      {"cut off",
       [](const TemporaryRoot& r) { r.makeFile("A.app/Info.plist", kNotes.substr(0, 90)); },
       State::kAbsent, EILSEQ},
      {"array root",
       [](const TemporaryRoot& r) { r.makeFile("A.app/Info.plist", plist("<array/>")); },
       State::kAbsent, EILSEQ},
      {"directory", [](const TemporaryRoot& r) { r.makeDirectory("A.app/Info.plist"); },
       State::kAbsent, EISDIR},
      {"symbolic link",
       [](const TemporaryRoot& r) {
         r.makeFile("whole.plist", kNotes);
         r.makeLink("A.app/Info.plist", "../whole.plist");
       },
       State::kAbsent, ELOOP},
      {"FIFO",
       [](const TemporaryRoot& r) { ASSERT_EQ(mkfifo((r / "A.app/Info.plist").c_str(), 0644), 0); },
       State::kAbsent, EINVAL},
      {"too large",
       [](const TemporaryRoot& r) {
         std::filesystem::resize_file(r.makeFile("A.app/Info.plist", kNotes),
                                      kInfoPlistMaximumSize + 1);
       },
       State::kAbsent, EFBIG},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const TemporaryRoot root;
    root.makeDirectory("A.app");
    c.make(root);
    const auto bundle = QXBundle::bundleWithURL(directoryURL(root / "A.app"));
    ASSERT_NE(bundle, nullptr);
    EXPECT_EQ(bundle->infoState(), c.state);
    EXPECT_EQ(bundle->infoErrorNumber(), c.errorNumber);
    EXPECT_EQ(bundle->infoDictionary() != nullptr, c.state == State::kRead);
    EXPECT_EQ(bundle->identifier().has_value(), c.state == State::kRead);
  }
}

TEST(Bundle, AShortageOfDescriptorsIsUnreadable) {
  const TemporaryRoot root;
  root.makeFile("A.app/Info.plist", kNotes);
  const auto bundle = QXBundle::bundleWithURL(directoryURL(root / "A.app"));
  ASSERT_NE(bundle, nullptr);
  {
    const NoDescriptors none;
    EXPECT_EQ(bundle->infoState(), QXBundle::InfoState::kUnreadable);
  }
  EXPECT_EQ(bundle->infoErrorNumber(), EMFILE);
  EXPECT_EQ(bundle->infoDictionary(), nullptr);
  EXPECT_FALSE(bundle->filteredInfoDictionary({"QXBundleIdentifier"}));
}

TEST(Bundle, WholeAndFilteredDictionary) {
  const TemporaryRoot root;
  root.makeFile("A.app/Info.plist", kNotes);
  const auto bundle = QXBundle::bundleWithURL(directoryURL(root / "A.app"));
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(description(*bundle), "QXBundle " + (root / "A.app/"));
  EXPECT_EQ(bundle->identifier(), "com.example.notes");

  const Dictionary* info = bundle->infoDictionary();
  ASSERT_NE(info, nullptr);
  const Dictionary expected{{"QXBundleIdentifier", Value::string("com.example.notes")},
                            {"QXBundleVersion", Value::string("7")},
                            {"QXBundleInfoPlistURL", Value::string(root / "A.app/Info.plist")}};
  EXPECT_EQ(*info, expected);

  const Value filtered =
      bundle->filteredInfoDictionary({"QXBundleVersion", "QXBundleInfoPlistURL", "Other"});
  const Dictionary version{{"QXBundleVersion", Value::string("7")}};
  EXPECT_EQ(filtered, Value::dictionary(version));

  root.makeFile("B.app/Info.plist", plist("<array><string>a</string></array>"));
  const auto list = QXBundle::bundleWithURL(directoryURL(root / "B.app"));
  EXPECT_EQ(list->filteredInfoDictionary({"a"}), Value::array({Value::string("a")}));

  root.makeFile("C.app/Info.plist",
                plist("<dict><key>QXBundleIdentifier</key><integer>5</integer></dict>"));
  EXPECT_EQ(QXBundle::bundleWithURL(directoryURL(root / "C.app"))->identifier(), std::nullopt);
}

TEST(Bundle, FactoryCanBeReplaced) {
  const TemporaryRoot root;
  const auto before = QXBundle::replace([](const URL&) { return std::unique_ptr<QXBundle>(); });
  EXPECT_EQ(QXBundle::bundleWithURL(root.url()), nullptr);
  EXPECT_NE(before(root.url()), nullptr);
  QXBundle::replace(nullptr);
  EXPECT_NE(QXBundle::bundleWithURL(root.url()), nullptr);
}

}  // namespace
}  // namespace pallion
