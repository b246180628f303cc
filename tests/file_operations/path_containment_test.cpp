#include <cerrno>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "file_operations/file_manager.h"
#include "file_operations/path_strings.h"
#include "tests/helpers/mounts.h"
#include "tests/helpers/recorded_logs.h"
#include "tests/helpers/temporary_root.h"

namespace pallion::test {

namespace {

using Lines = std::vector<std::string>;

const PLFileManager& files = PLFileManager::defaultManager();
const std::string kContainment = "3 -[PLFileManager realPathForURL:ifChildOfURL:]: ";
const std::string kRealPath =
    "3 -[PLFileManager _realPathForURL:allowNonExistentPathComponents:]: Failed to realpath ";
const std::string kAppending =
    "7 -[PLFileManager _realPathWhatExistsInPath:]: Realpathed /private/var/x ; appending "
    "non-existing components ";

// The test becomes the root directory, so that absolute paths mean what they mean on a device.
void layOut(const TemporaryRoot& root) {
  root.makeFile("top");
  root.makeFile("private/var/x/f");
  root.makeFile("private/var/x/sub/f");
  root.makeFile("private/var/x/sub/deeper/item");
  root.makeFile("private/var/xy/d");
  root.makeLink("var", "private/var");
  root.makeLink("..odd", "top");
}

std::string textOfLength(size_t length, const std::string& end) {
  std::string text;
  while (text.size() + 2 + end.size() <= length) text += "./";
  if (text.size() + end.size() < length) text.insert(1, "/");
  return text + end;
}

// A directory whose path is longer than what a real path may have.
std::string makeLongDirectory() {
  std::string path;
  for (int i = 0; i < 5; ++i) {
    path += "/" + std::string(250, static_cast<char>('a' + i));
    EXPECT_TRUE(std::filesystem::create_directory(path));
  }
  return path;
}

struct Row {
  std::string base;
  std::string suspicious;
  std::string answer;  // empty for a rejection
  Lines lines;
};

void check(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    RecordedProductLog log(kLogDebug);
    const URL base = URL::fileURL(row.base);
    const URL suspicious = URL::fileURL(row.suspicious);
    const std::optional<URL> answer = files.realPathForURL(&suspicious, &base);
    EXPECT_EQ(answer ? answer->path() : "", row.answer) << row.suspicious << " in " << row.base;
    EXPECT_EQ(log.lines, row.lines) << row.suspicious << " in " << row.base;
  }
}

void checkAccepted(const TemporaryRoot& root) {
  root.makeLink("private/var/x/sub/down", "deeper/item");
  root.makeLink("private/var/x/sub/up", "../f");
  root.makeLink("private/var/x/sub/to-base", "..");
  root.makeLink("private/var/x/linked", "sub");
  root.makeLink("private/var/x/dangling", "none");
  root.makeLink("private/var/x/longest", textOfLength(1023, "f"));
  ASSERT_EQ(chroot(root.path().c_str()), 0);
  check({
      {"/var/x", "/private/var/x/f", "/private/var/x/f", {}},
      {"/private/var/x", "/var/x/f", "/private/var/x/f", {}},
      {"/var/x/", "/var/x/sub/", "/private/var/x/sub", {}},
      {"/var/x", "/var/x", "/private/var/x", {}},
      {"/private/", "/private/", "/private", {}},
      {"/var/x", "/var/x/new/deep", "/private/var/x/new/deep", {kAppending + "new/deep"}},
      {"/var/x", "/var/x/linked/f", "/private/var/x/sub/f", {}},
      {"/var/x", "/var/x/sub/down", "/private/var/x/sub/deeper/item", {}},
      {"/var/x", "/var/x/sub/up", "/private/var/x/f", {}},
      {"/var/x", "/var/x/sub/to-base", "/private/var/x", {}},
      {"/var/x", "/var/x/longest", "/private/var/x/f", {}},
      {"/var/x",
       "/var/x/dangling",
       "/private/var/x/dangling",
       {kRealPath + "/var/x/dangling : No such file or directory at /private/var/x/none",
        kAppending + "dangling"}},
  });
}

void checkRejected(const TemporaryRoot& root) {
  root.makeLink("private/var/x/absolute", "/private/var/x/f");
  root.makeLink("private/var/x/sub/out", "../../xy/d");
  root.makeLink("private/var/x/direct", "../x/f");
  root.makeLink("private/var/x/loop", "loop");
  root.makeLink("private/var/x/too-long", textOfLength(1024, "f"));
  root.makeLink("private/var/x/sub/shallow", "/");
  root.makeLink("private/var/x/away", "/private/var/xy");
  ASSERT_EQ(chroot(root.path().c_str()), 0);
  const std::string longPath = makeLongDirectory();
  const auto rejecting = [](const std::string& what) { return kContainment + "Rejecting " + what; };
  check({
      {"/var/x",
       "/var/y/f",
       "",
       {kContainment + "supiscious path /var/y/f does not contain base path /var/x as a prefix"}},
      {"/private/var/x/",
       "/private/var/x",
       "",
       {kContainment + "supiscious path /var/x does not contain base path /var/x/ as a prefix"}},
      {"/var/x",
       "/private/var/x/../xy/d",
       "",
       {kContainment +
        "The suspicious path /var/x/../xy/d contains '..' paths, which are invalid"}},
      {"/var/x", "/var/x/f/below", "", {kContainment + "Readlink failed: Not a directory"}},
      {"/var/x", "/var/x/too-long", "", {kContainment + "Readlink failed: File name too long"}},
      {"/var/x",
       "/var/x/absolute",
       "",
       {rejecting("/var/x/absolute -> /private/var/x/f, as absolute symlinks are not allowed")}},
      {"/..", "/..odd", "", {kContainment + "Failed to retrieve depth of /.."}},
      {"/var/x",
       "/var/x/sub/out",
       "",
       {rejecting("/var/x/sub/out -> /sub/../../xy/d, as it is points outside or to the base "
                  "/var/x")}},
      {"/var/x",
       "/var/x/direct",
       "",
       {rejecting("/var/x/direct -> /../x/f, as it is points outside or to the base /var/x")}},
      // The link's own name does not count, however the location is marked.
      {"/var/x",
       "/var/x/direct/",
       "",
       {rejecting("/var/x/direct/ -> /../x/f, as it is points outside or to the base /var/x")}},
      {"/var/none",
       "/var/none/f",
       "",
       {kRealPath + "/var/none : No such file or directory at /private/var/none",
        kContainment + "Failed to retrieve realpath for base path /var/none "}},
      {longPath,
       longPath + "/f",
       "",
       {kRealPath + longPath + " : File name too long at " + longPath,
        kContainment + "Failed to retrieve realpath for base path " + longPath + " "}},
      {"/var/x",
       "/var/x/loop",
       "",
       {kRealPath + "/var/x/loop : Too many levels of symbolic links at ",
        kContainment + "Failed to retrieve realpath for suspicious path /var/x/loop"}},
      {"/",
       "/missing",
       "",
       {kContainment + "Failed to retrieve realpath for suspicious path /missing"}},
      {"/",
       "/top",
       "",
       {rejecting("/top with base / because real component counts don't make sense (reals /top ; "
                  "/)")}},
      {"/var/x/sub",
       "/var/x/sub/shallow/top",
       "",
       {rejecting("/var/x/sub/shallow/top with base /var/x/sub because base component count is "
                  "greater than child component count (reals /top ; /private/var/x/sub)")}},
      {"/var/x",
       "/var/xy/d",
       "",
       {rejecting("/var/xy/d with base /var/x (reals /private/var/xy/d ; /private/var/x) because "
                  "components diverge at x != xy")}},
      {"/var/x",
       "/var/x/away/d",
       "",
       {rejecting("/var/x/away/d with base /var/x (reals /private/var/xy/d ; /private/var/x) "
                  "because components diverge at x != xy")}},
  });
}

}  // namespace

TEST(PathContainment, AcceptsWhatLiesInsideTheBase) {
  if (!canMount()) GTEST_SKIP() << "changing the root needs CAP_SYS_ADMIN";
  const TemporaryRoot root;
  layOut(root);
  EXPECT_TRUE(runInMountNamespace([&] { checkAccepted(root); }));
}

TEST(PathContainment, RejectsEverythingElseAndSaysWhy) {
  if (!canMount()) GTEST_SKIP() << "changing the root needs CAP_SYS_ADMIN";
  const TemporaryRoot root;
  layOut(root);
  EXPECT_TRUE(runInMountNamespace([&] { checkRejected(root); }));
}

TEST(PathContainment, RejectsNull) {
  RecordedProductLog log;
  const URL url = URL::fileURL("/var/x");
  EXPECT_FALSE(files.realPathForURL(nullptr, &url));
  EXPECT_FALSE(files.realPathForURL(&url, nullptr));
  EXPECT_EQ(log.lines, (Lines{kContainment + "The base path file:///var/x and/or suspicious path "
                                             "(null) were nil",
                              kContainment + "The base path (null) and/or suspicious path "
                                             "file:///var/x were nil"}));
}

TEST(SymbolicLinks, AreMadeAndRead) {
  const TemporaryRoot root;
  root.makeDirectory("d");
  const URL link = URL::fileURL(root / "d/made");
  ASSERT_TRUE(files.createSymbolicLinkAtURL(link, URL::fileURL("/to/directory/"), nullptr));
  Error error;
  EXPECT_FALSE(files.createSymbolicLinkAtURL(link, URL::fileURL("/other"), &error));
  EXPECT_TRUE(error.isPOSIX(EEXIST));
  EXPECT_EQ(error.localizedDescription(),
            "Could not create symlink containing /other at " + (root / "d/made") + ": File exists");

  const std::string longest = textOfLength(1023, "f");
  const std::string longer = textOfLength(1024, "f");
  const std::string bytes = "/not \xFF utf-8";
  const std::pair<std::string, URL> rows[] = {
      {root / "d/made", URL::fileURL("/to/directory")},
      {root.makeLink("d/absolute", "/a/b/"), URL::fileURL("/a/b/")},
      {root.makeLink("d/bytes", bytes), URL::fileURL(bytes)},
      {root.makeLink("d/relative", "sub/f"), URL::fileURL(root / "d/sub/f")},
      {root.makeLink("d/up", "../f/"), URL::fileURL(root / "d/../f/")},
      {root.makeLink("d/longest", longest), URL::fileURL((root / "d/") + longest)},
  };
  for (const auto& [path, destination] : rows) {
    EXPECT_EQ(files.destinationOfSymbolicLinkAtURL(URL::fileURL(path), nullptr), destination);
  }
  const std::pair<std::string, int> failures[] = {{root.makeLink("longer", longer), ENAMETOOLONG},
                                                  {root.makeFile("file"), EINVAL},
                                                  {root / "none", ENOENT}};
  for (const auto& [path, number] : failures) {
    EXPECT_FALSE(files.destinationOfSymbolicLinkAtURL(URL::fileURL(path), &error));
    EXPECT_TRUE(error.isPOSIX(number)) << description(error);
    EXPECT_EQ(error.localizedDescription(),
              "Could not readlink " + path + " : " + std::strerror(number));
  }
}

TEST(PathStrings, FindClimbingComponents) {
  const std::pair<const char*, bool> rows[] = {
      {"", false},  {"/", false},  {"/a/b", false},   {"/a/..b/c..", false}, {"/a/.../b", false},
      {"..", true}, {"/..", true}, {"/a/../b", true}, {"a//..//", true}};
  for (const auto& [path, climbs] : rows) {
    EXPECT_EQ(PallionAdditions::containsDotDotPathComponents(path), climbs) << path;
  }
  EXPECT_EQ(PallionAdditions::pathComponents("//a//b/"), (Lines{"/", "a", "b"}));
}

}  // namespace pallion::test
