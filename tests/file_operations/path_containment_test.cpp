#include <cerrno>
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

// Every base is /var/x unless another one is named.
struct Row {
  const char* suspicious;
  const char* answer;  // none for a rejection
  const char* lines;   // "C " stands for the beginning of a line on containment, and so on
  const char* base = "/var/x";
};
const Row kRows[] = {
    {"/var/x/", "/private/var/x", "", "/private/var/x/"},
    {"/var/x/sub/", "/private/var/x/sub", ""},
    {"/var/x/new/deep", "/private/var/x/new/deep", "A new/deep"},
    {"/var/x/linked/f", "/private/var/x/sub/f", ""},
    {"/var/x/sub/up", "/private/var/x/f", ""},
    {"/var/x/sub/to-base", "/private/var/x", ""},
    {"/var/x/longest", "/private/var/x/f", ""},
    {"/var/x/dangling", "/private/var/x/dangling",
     "R /var/x/dangling : No such file or directory at /private/var/x/none\nA dangling"},
    {"/var/y/f", nullptr,
     "C supiscious path /var/y/f does not contain base path /var/x as a prefix"},
    {"/private/var/x", nullptr,
     "C supiscious path /var/x does not contain base path /var/x/ as a prefix", "/private/var/x/"},
    {"/private/var/x/../xy/d", nullptr,
     "C The suspicious path /var/x/../xy/d contains '..' paths, which are invalid"},
    {"/var/x/too-long", nullptr, "C Readlink failed: File name too long"},
    {"/var/x/absolute", nullptr,
     "C Rejecting /var/x/absolute -> /private/var/x/f, as absolute symlinks are not allowed"},
    {"/..odd", nullptr, "C Failed to retrieve depth of /..", "/.."},
    {"/var/x/sub/out", nullptr,
     "C Rejecting /var/x/sub/out -> /sub/../../xy/d, as it is points outside or to the base "
     "/var/x"},
    // The link's own name does not count, however the location is marked.
    {"/var/x/direct/", nullptr,
     "C Rejecting /var/x/direct/ -> /../x/f, as it is points outside or to the base /var/x"},
    {"/var/none/f", nullptr,
     "R /var/none : No such file or directory at /private/var/none\n"
     "C Failed to retrieve realpath for base path /var/none ",
     "/var/none"},
    {"/var/x/loop", nullptr,
     "R /var/x/loop : Too many levels of symbolic links at \n"
     "C Failed to retrieve realpath for suspicious path /var/x/loop"},
    {"/top", nullptr,
     "C Rejecting /top with base / because real component counts don't make sense (reals /top ; /)",
     "/"},
    {"/var/x/sub/shallow/top", nullptr,
     "C Rejecting /var/x/sub/shallow/top with base /var/x/sub because base component count is "
     "greater than child component count (reals /top ; /private/var/x/sub)",
     "/var/x/sub"},
    {"/var/xy/d", nullptr,
     "C Rejecting /var/xy/d with base /var/x (reals /private/var/xy/d ; /private/var/x) because "
     "components diverge at x != xy"},
};

void checkAll(const TemporaryRoot& root) {
  const std::pair<const char*, std::string> links[] = {{"sub/up", "../f"},
                                                       {"sub/to-base", ".."},
                                                       {"linked", "sub"},
                                                       {"dangling", "none"},
                                                       {"longest", textOfLength(1023, "f")},
                                                       {"absolute", "/private/var/x/f"},
                                                       {"sub/out", "../../xy/d"},
                                                       {"direct", "../x/f"},
                                                       {"loop", "loop"},
                                                       {"too-long", textOfLength(1024, "f")},
                                                       {"sub/shallow", "/"}};
  for (const auto& [name, text] : links) root.makeLink(std::string("private/var/x/") + name, text);
  ASSERT_EQ(chroot(root.path().c_str()), 0);
  for (const Row& row : kRows) {
    RecordedProductLog log(kLogDebug);
    const URL base = URL::fileURL(row.base);
    const URL suspicious = URL::fileURL(row.suspicious);
    const std::optional<URL> answer = files.realPathForURL(&suspicious, &base);
    EXPECT_EQ(answer ? answer->path() : "", row.answer ? row.answer : "") << row.suspicious;
    std::string lines;
    for (std::string line : log.lines) {
      for (const auto& [name, beginning] :
           {std::pair<const char*, const std::string&>{"C ", kContainment},
            {"R ", kRealPath},
            {"A ", kAppending}}) {
        if (line.starts_with(beginning)) line = name + line.substr(beginning.size());
      }
      lines += (lines.empty() ? "" : "\n") + line;
    }
    EXPECT_EQ(lines, row.lines) << row.suspicious;
  }
}

}  // namespace

TEST(PathContainment, AcceptsWhatLiesInsideTheBaseAndSaysWhyNothingElse) {
  if (!canMount()) GTEST_SKIP() << "changing the root needs CAP_SYS_ADMIN";
  const TemporaryRoot root;
  layOut(root);
  EXPECT_TRUE(runInMountNamespace([&] { checkAll(root); }));
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

  const std::string longest = textOfLength(1023, "f");
  const std::string longer = textOfLength(1024, "f");
  const std::string bytes = "/not \xFF utf-8";
  const std::pair<std::string, URL> rows[] = {
      {root / "d/made", URL::fileURL("/to/directory")},
      {root.makeLink("d/bytes", bytes), URL::fileURL(bytes)},
      {root.makeLink("d/up", "../f/"), URL::fileURL(root / "d/../f/")},
      {root.makeLink("d/longest", longest), URL::fileURL((root / "d/") + longest)},
  };
  for (const auto& [path, destination] : rows) {
    EXPECT_EQ(files.destinationOfSymbolicLinkAtURL(URL::fileURL(path), nullptr), destination);
  }
  const std::pair<std::string, std::string> failures[] = {
      {root.makeLink("longer", longer), "POSIX 36: Could not readlink @ : File name too long"},
      {root.makeFile("file"), "POSIX 22: Could not readlink @ : Invalid argument"},
      {root / "none", "POSIX 2: Could not readlink @ : No such file or directory"}};
  for (auto [path, text] : failures) {
    EXPECT_FALSE(files.destinationOfSymbolicLinkAtURL(URL::fileURL(path), &error));
    EXPECT_EQ(description(error), text.replace(text.find('@'), 1, path));
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
