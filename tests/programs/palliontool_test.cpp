#include <cmath>
#include <sys/stat.h>

#include "foundation/property_list.h"
#include "tests/programs/program_process.h"

namespace pallion::test {
namespace {

ProcessOutcome run(const Words& arguments) { return runProcess(setupOf("palliontool", arguments)); }

const std::string kInfo =
    plist(entry("QXBundleIdentifier", "com.a") + entry("QXBundleVersion", "1.2"));

// "@" stands for the path of a temporary root, which holds the same for every case.
struct Invocation {
  const char* arguments;  // words between blanks
  int status;
  const char* out;
  const char* error;  // without the program's name and the newline
};

std::string filled(std::string text, const std::string& root) {
  for (size_t at = 0; (at = text.find('@', at)) != std::string::npos; at += root.size()) {
    text.replace(at, 1, root);
  }
  return text;
}

void expectOutcomes(const TemporaryRoot& root, const std::vector<Invocation>& invocations) {
  for (const Invocation& invocation : invocations) {
    SCOPED_TRACE(invocation.arguments);
    const ProcessOutcome outcome = run(wordsOf(filled(invocation.arguments, root.path())));
    EXPECT_EQ(outcome.status, invocation.status);
    EXPECT_EQ(outcome.out, filled(invocation.out, root.path()));
    const std::string error = filled(invocation.error, root.path());
    EXPECT_EQ(outcome.err, error.empty() ? "" : "palliontool: " + error + "\n");
  }
}

TEST(PallionTool, AnswersOnFiles) {
  const TemporaryRoot root;
  root.makeFile("f", "hi\n");
  root.makeFile("list/sub/x");
  root.makeFile("links/x");
  root.makeLink("links/link", "x");
  root.makeLink("link", "f");
  root.makeLink("out", "/etc");
  const std::string digest = "98ea6e4f216f2fb4b69fff9b3a44842c38686ca685f3f55dc48c5d3fb1107be4  ";
  const std::string digests = digest + "@/f\n" + digest + "@/link\n";
  expectOutcomes(root,
                 {
                     {"digest @/f @/none @/link", 1, digests.c_str(),
                      "failed to open @/none : No such file or directory"},
                     {"real-path --base @/ @/list/./new", 0, "@/list/new\n", ""},
                     {"real-path --base @ @/out", 1, "",
                      "Rejecting @/out -> /etc, as absolute symlinks are not allowed"},
                     {"list @/f", 1, "", "_IterateDirectory for @/f returned Not a directory"},
                     {"copy @/list @/copied", 0, "", ""},
                     {"copy @/list @/copied", 1, "",
                      "copyfile of file://@/list to file://@/copied failed: File exists"},
                     {"move @/copied @/list/moved", 0, "", ""},
                     {"move @/copied @/x", 1, "",
                      "rename of file://@/copied to file://@/x failed: No such file or directory"},
                     {"list @/list/moved", 0, "@/list/moved/sub/\n", ""},
                     {"remove @/list/moved", 0, "", ""},
                     {"list @/list", 0, "@/list/sub/\n", ""},
                     {"list --ignore-links @/links", 0, "@/links/x\n", ""},
                 });
}

TEST(PallionTool, AnswersOnBundles) {
  const TemporaryRoot root;
  root.makeFile("A.app/Info.plist", kInfo);
  root.makeDirectory("bare.app");
  const char* const kVersion = "{\n  \"QXBundleVersion\": \"1.2\"\n}\n";
  expectOutcomes(
      root, {
                {"info-plist @/A.app --key QXBundleVersion --key none --to json", 0, kVersion, ""},
                {"info-plist @/bare.app", 1, "",
                 "Missing Info.plist at file://@/bare.app/Info.plist: No such file or directory"},
                {"placeholder @/A.app", 1, "", ""},
                {"placeholder @/none", 1, "", "@/none: No such file or directory"},
                {"placeholder @/A.app --mark", 0, "", ""},
                {"placeholder @/A.app", 0, "", ""},
                {"install-type @/A.app 18446744073709551615", 0, "18446744073709551615\n", ""},
                {"install-type @/A.app", 0, "18446744073709551615\n", ""},
                {"protection-class @/A.app 4", 0, "4\n", ""},
                {"protection-class @/A.app", 0, "4\n", ""},
                {"protection-class @/A.app -1", 1, "",
                 "Failed to setclass(-1) on file @/A.app: Invalid argument"},
            });
  if (!isRoot()) GTEST_SKIP() << "changing owners needs root";
  root.makeLink("A.app/out", "../..");
  expectOutcomes(root, {{"standardize-ownership --uid 12 --gid 34 @/A.app", 0, "", ""},
                        {"standardize-ownership --uid 12 --gid 34 --validate-symlinks @/A.app", 1,
                         "", "invalid symlink at @/A.app/out"}});
  struct stat status {};
  ASSERT_EQ(stat((root / "A.app/Info.plist").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 12U);
  EXPECT_EQ(status.st_gid, 34U);
}

TEST(PallionTool, RefusesWrongUsageBeforeAnythingIsDone) {
  const TemporaryRoot root;
  root.makeFile("f");
  expectOutcomes(
      root, {
                {"", 2, "", "A subcommand is required"},
                {"shred @/f", 2, "", "no such subcommand: shred"},
                {"remove @/f --force", 2, "", "The following argument was not expected: --force"},
                {"remove --root @/none /", 2, "", "@/none: No such file or directory"},
                {"protection-class @/f 2147483648", 2, "", "N: no number that fits: 2147483648"},
                {"standardize-ownership --uid 0 --gid 4294967295 @/f", 2, "",
                 "--gid: no number that fits: 4294967295"},
            });
  EXPECT_EQ(run({"remove", ""}).status, 2);  // not the working directory
  EXPECT_TRUE(exists(root / "f"));
}

TEST(PallionTool, WritesDigestsAsSha256sumDoes) {
  const TemporaryRoot root;
  Words command = {"digest"};
  for (const char* name : {"plain", "back\\slash", "two\nlines", "re\rturn", "not \xFF UTF-8"}) {
    command.push_back(root.makeFile(name, name));
  }
  const std::string digests = run(command).out;
  command[0] = "/usr/bin/sha256sum";
  EXPECT_EQ(digests, runProcess({.arguments = command, .environment = {}}).out);
}

TEST(PallionTool, ConvertsPropertyLists) {
  const TemporaryRoot root;
  const std::string xml = root.makeFile(
      "xml", plist("<key>text</key><string>\xC3\xA9&amp;</string><key>n</key><integer>"
                   "18446744073709551615</integer><key>m</key><integer>-1</integer>"
                   "<key>r</key><real>1.5</real><key>b</key><true/><key>t</key>"
                   "<date>2020-01-02T03:04:05Z</date><key>a</key><array><data>AAEC/w==</data>"
                   "<data>AAE=</data><data></data></array>"));
  const Value list = readPropertyList(readAll(xml));
  ASSERT_TRUE(list);
  const ProcessOutcome binary = run({"plist", xml, "--to", "binary"});
  EXPECT_TRUE(binary.out.starts_with("bplist00"));
  EXPECT_EQ(readPropertyList(binary.out), list);
  const std::string converted = root.makeFile("binary", binary.out);
  const ProcessOutcome back = run({"plist", converted});
  EXPECT_TRUE(back.out.starts_with("<?xml ")) << back.out;
  EXPECT_EQ(readPropertyList(back.out), list);
  EXPECT_EQ(Json::parse(run({"plist", converted, "--to", "json"}).out, nullptr, false),
            Json({{"text", "\xC3\xA9&"},
                  {"n", 18446744073709551615U},
                  {"m", -1},
                  {"r", 1.5},
                  {"b", true},
                  {"t", "2020-01-02T03:04:05Z"},
                  {"a", {"AAEC/w==", "AAE=", ""}}}));

  Dictionary oddKey;
  oddKey.set(Value::integer(2), Value::integer(1));
  const std::pair<const char*, Value> odd[] = {{"set", Value::set({Value::integer(7)})},
                                               {"key", Value::dictionary(oddKey)},
                                               {"infinite", Value::array({Value::real(HUGE_VAL)})},
                                               {"late", Value::date(1e15)}};
  for (const auto& [name, value] : odd)
    root.makeFile(name, writePropertyList(value, PropertyListFormat::kBinary).value());
  root.makeFile("cut", binary.out.substr(0, binary.out.size() - 1));
  ASSERT_EQ(mkfifo((root / "fifo").c_str(), 0600), 0);
  expectOutcomes(root,
                 {{"plist @/set --to xml", 1, "", "@/set: XML can't hold a key or a value of it"},
                  {"plist @/key --to json", 1, "",
                   "@/key: JSON can't hold it: a dictionary has a key that is no string"},
                  {"plist @/infinite --to json", 1, "",
                   "@/infinite: JSON can't hold it: a number is not finite"},
                  {"plist @/late --to json", 1, "",
                   "@/late: JSON can't hold it: a date is outside the years 1 to 9999"},
                  {"plist @/cut", 1, "", "@/cut: no property list, or a damaged one"},
                  {"plist @/fifo", 1, "", "@/fifo: Invalid argument"},
                  {"plist @/none", 1, "", "@/none: No such file or directory"}});
}

TEST(PallionTool, WorksInsideAnotherRoot) {
  const TemporaryRoot root;
  root.makeFile("Applications/A.app/Info.plist", kInfo);
  root.makeFile("OrlixInternal/Frameworks/F.framework/Info.plist", kInfo);
  expectOutcomes(root, {{"list --root @ /Applications", 0, "/Applications/A.app/\n", ""},
                        {"prefs get --root @ Name", 1, "", "Name: not set"},
                        {"prefs set --root @ SimultaneousInstallsNumber -2", 0, "", ""},
                        {"prefs get --root @ SimultaneousInstallsNumber", 0, "-2\n", ""},
                        {"prefs set --root @ SkipThinningCheck true", 0, "", ""},
                        {"prefs set --root @ Name [1]", 0, "", ""},
                        {"prefs get --root @ Name", 0, "[1]\n", ""}});

  const Json config = Json::parse(run({"config", "--root", root.path(), "--json"}).out);
  const std::pair<const char*, Json> values[] = {
      {"nSimultaneousInstallations", -2},  // the integer, which a string would not change
      {"skipThinningCheck", true},         // likewise
      {"installationBlacklist", {"com.orlix.Tovin6Updater"}},
      {"alternateThinningModelIdentifier", nullptr}};
  for (const auto& [name, value] : values) EXPECT_EQ(config.at(name), value) << name;
  const std::string table = run({"config", "--root", root.path()}).out;
  for (const auto& [name, value] : config.items()) {
    EXPECT_NE(("\n" + table).find("\n" + name + " "), std::string::npos) << name;
  }

  const Json builtIn = Json::parse(run({"built-in", "--root", root.path(), "--json"}).out);
  EXPECT_EQ(builtIn.at("systemAppBundleIDToInfoMap"),
            Json({{"com.a",
                   {{"QXBundleIdentifier", "com.a"},
                    {"QXBundleVersion", "1.2"},
                    {"com.orlix.Pallion.bundleURL", "/Applications/A.app/"}}}}));
  EXPECT_EQ(builtIn.at("internalAppBundleIDToInfoMap"), Json());
  EXPECT_EQ(builtIn.at("builtInFrameworkBundleIDs"), Json({"com.a"}));
  EXPECT_NE(run({"built-in", "--root", root.path()}).out.find("com.a  "), std::string::npos);
  root.makeFile("System/Library/Baseweave", "no directory");
  const ProcessOutcome partly = run({"built-in", "--root", root.path()});
  EXPECT_EQ(partly.status, 1);
  EXPECT_NE(partly.out.find("/Applications/A.app/"), std::string::npos);
  EXPECT_NE(partly.err.find("/System/Library/Baseweave/ "), std::string::npos) << partly.err;
}

TEST(PallionTool, FailsWhenItsOutputIsLost) {
  const TemporaryRoot root;
  ChildProcess::Setup setup = setupOf("palliontool", {root.makeFile("f", kInfo)});
  const Words shell = {"/bin/sh", "-c", "exec \"$0\" plist \"$1\" > /dev/full"};
  setup.arguments.insert(setup.arguments.begin(), shell.begin(), shell.end());
  const ProcessOutcome outcome = runProcess(setup);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "palliontool: standard output: No space left on device\n");
}

}  // namespace
}  // namespace pallion::test
