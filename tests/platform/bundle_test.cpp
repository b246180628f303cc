#include "platform/bundle.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "tests/helpers/temporary_root.h"

namespace pallion {
namespace {

using test::TemporaryRoot;

const std::string kNotes =
    "<plist><dict><key>QXBundleIdentifier</key><string>com.example.notes</string>"
    "<key>QXBundleVersion</key><string>7</string></dict></plist>";

std::unique_ptr<QXBundle> bundleAt(const std::string& path) {
  return QXBundle::bundleWithURL(URL::fileURL(path, URL::Kind::kDirectory));
}

TEST(Bundle, StatesOfTheInformationPropertyList) {
  const TemporaryRoot none;
  none.makeFile("File.app", "x");
  none.makeLink("Link.app", ".");
  for (const char* name : {"File.app", "Link.app", "Missing.app", "File.app/Inner.app"})
    EXPECT_EQ(bundleAt(none / name), nullptr) << name;
  EXPECT_EQ(bundleAt("relative"), nullptr);
  none.makeLink("Elsewhere", none.makeDirectory("apps"));
  none.makeFile("apps/B.app/Info.plist", kNotes);
  EXPECT_EQ(bundleAt(none / "Elsewhere/B.app")->identifier(), "com.example.notes");
  const struct {
    const char* name;
    int errorNumber;  // 0: it is read
    std::function<void(const TemporaryRoot&)> make;
  } cases[] = {
      {"whole", 0, [](const TemporaryRoot& r) { r.makeFile("A.app/Info.plist", kNotes); }},
      {"missing", ENOENT, [](const TemporaryRoot&) {}},
      {"empty", EILSEQ, [](const TemporaryRoot& r) { r.makeFile("A.app/Info.plist"); }},
      {"array", EILSEQ,
       [](const TemporaryRoot& r) { r.makeFile("A.app/Info.plist", "<plist><array/></plist>"); }},
      {"directory", EISDIR, [](const TemporaryRoot& r) { r.makeDirectory("A.app/Info.plist"); }},
      {"symbolic link", ELOOP,
       [](const TemporaryRoot& r) { r.makeLink("A.app/Info.plist", r.makeFile("f", kNotes)); }},
      {"FIFO", EINVAL,
       [](const TemporaryRoot& r) { mkfifo((r / "A.app/Info.plist").c_str(), 0644); }},
      {"too large", EFBIG, [](const TemporaryRoot& r) {
         std::filesystem::resize_file(r.makeFile("A.app/Info.plist", kNotes),
                                      kInfoPlistMaximumSize + 1);
       }}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const TemporaryRoot root;
    root.makeDirectory("A.app");
    c.make(root);
    const auto bundle = bundleAt(root / "A.app");
    using State = QXBundle::InfoState;
    EXPECT_EQ(bundle->infoState(), c.errorNumber == 0 ? State::kRead : State::kAbsent);
    EXPECT_EQ(bundle->infoErrorNumber(), c.errorNumber);
    EXPECT_EQ(bundle->infoDictionary() != nullptr, c.errorNumber == 0);
    EXPECT_EQ(bundle->identifier().has_value(), c.errorNumber == 0);
  }
}

TEST(Bundle, WhatCannotBeReadJustNowIsNotAbsent) {
  // A name too long for any file system: lstat fails, which says nothing about absence.
  const TemporaryRoot root;
  const auto unknown = bundleAt(root / std::string(300, 'x'));
  ASSERT_NE(unknown, nullptr);
  EXPECT_EQ(unknown->infoState(), QXBundle::InfoState::kUnreadable);
  EXPECT_EQ(unknown->infoErrorNumber(), ENAMETOOLONG);

  root.makeFile("A.app/Info.plist", kNotes);
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{0, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const auto bundle = bundleAt(root / "A.app");
  const auto state = bundle->infoState();
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(state, QXBundle::InfoState::kUnreadable);
  EXPECT_EQ(bundle->infoErrorNumber(), EMFILE);
  EXPECT_EQ(bundle->infoDictionary(), nullptr);
  EXPECT_FALSE(bundle->filteredInfoDictionary({"QXBundleIdentifier"}));
}

}  // namespace
}  // namespace pallion
