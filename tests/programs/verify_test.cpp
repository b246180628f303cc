#include "tests/programs/program_process.h"

namespace pallion::test {
namespace {

class Verify : public testing::Test {
 protected:
  void SetUp() override {
    if (!isRoot()) GTEST_SKIP() << "owners of user data need root";
    // Among the files are links, a FIFO, and names in Latin 1 and with a line feed.
    makeOldLayout(device_, "--apps 2 --vpn 1 --groups 1 --harbors 1 --placeholders 1 --files 3");
  }
  static std::vector<Json> verify(const std::string& root, const std::string& snapshot) {
    return jsonLines(host(root, {"verify", "--json", "--against", snapshot}));
  }

  TemporaryRoot scratch_;
  const std::string device_ = scratch_.makeDirectory("device");
  const std::string snapshot_ = scratch_ / "snapshot";
};

TEST_F(Verify, ProvesThatAMigrationLostNothingAndChangesNothingItself) {
  const TreeSnapshot before = snapshotWithTimes(device_);
  EXPECT_EQ(host(device_, {"snapshot", "--out", snapshot_}).status, 0);
  EXPECT_EQ(host(device_, {"snapshot"}).out, readAll(snapshot_));
  EXPECT_EQ(host(device_, {"snapshot", "--out", device_ + "/inside"}).status, 2);
  EXPECT_EQ(difference(before, snapshotWithTimes(device_)), "");

  const std::vector<Json> early = verify(device_, snapshot_);
  EXPECT_EQ(early.back().at("exitStatus"), 1);
  EXPECT_EQ(early.back().at("equal"), early.back().at("entries"));
  EXPECT_EQ(early.back().at("items"), early.size() - 1);
  for (size_t i = 0; i + 1 < early.size(); ++i) EXPECT_EQ(early[i].at("what"), "oldLayout");

  ASSERT_EQ(host(device_).status, 0);
  const std::vector<Json> late = verify(device_, snapshot_);
  EXPECT_EQ(late.size(), 1U) << late.front();
  EXPECT_EQ(late.back().at("exitStatus"), 0);
}

// Copies the device "$1" into "$2". "$1" is then the item of name "$3" somewhere below "$4" there.
// Only what is planted may show: item and directory keep their times, meanwhile on "$2".
const std::string kBefore = R"sh(cp -a "$1" "$2/copy"; : >"$2/item"
set -- "$(find "$2/copy/private/var/palliond/$4" -name "$3" -print -quit)" "$2"
touch -hr "$1" "$2/item"; touch -r "${1%/*}" "$2"
)sh";
const char* const kAfter = R"sh(
touch -chr "$2/item" "$1"; touch -r "$2" "${1%/*}")sh";

TEST_F(Verify, NamesWhateverIsLostOrChanged) {
  const struct {
    const char* what;
    const char* name;
    const char* damage;
    const char* place = "Containers/Data";
  } kCases[] = {
      {"content", "private.key", "printf x | dd of=\"$1\" bs=1 seek=7 conv=notrunc"},
      {"missing", "two\nlines", "rm \"$1\""},
      {"missing", "caf\xE9.txt", "rm \"$1\""},
      {"mode", "locked.txt", "chmod 0644 \"$1\""},
      {"owner", "disk.image", "chown 7 \"$1\""},
      {"modified", "control", "touch \"$2/item\""},
      {"attribute user.com.example.tag", "tagged.txt", "setfattr -x user.com.example.tag \"$1\""},
      {"hardLink", "second name of the first", "cp -a \"$1\" \"$1.new\"; mv \"$1.new\" \"$1\""},
      {"target", "gone", "ln -sfn '/nowhere/at bll' \"$1\"; chown -h 33:33 \"$1\""},
      {"kind", ".hidden", "rm \"$1\"; mkdir \"$1\""},
      {"missing", "shared.db", "rm \"$1\"", "Containers/Group"},
      {"missing", "history.dat", "rm \"$1\"", "Library/Pallion/SafeHarbors"},
  };
  ASSERT_EQ(host(device_, {"snapshot", "--out", snapshot_}).status, 0);
  ASSERT_EQ(host(device_).status, 0);
  for (const auto& damage : kCases) {
    SCOPED_TRACE(std::string(damage.what) + " " + damage.name);
    const TemporaryRoot scratch;
    ChildProcess::Setup setup;
    setup.arguments = {"/bin/sh",   "-c",        kBefore + damage.damage + kAfter,
                       "sh",        device_,     scratch.path(),
                       damage.name, damage.place};
    runProcess(setup);
    const std::vector<Json> lines = verify(scratch / "copy", snapshot_);
    EXPECT_EQ(lines.back().at("exitStatus"), 1);
    ASSERT_EQ(lines.size(), 2U) << Json(lines);
    EXPECT_EQ(lines[0].at("what"), damage.what);
    const bool isUTF8 = std::string_view(damage.name) != "caf\xE9.txt";
    const auto named = lines[0].at(isUTF8 ? "path" : "pathHex").get<std::string>();
    EXPECT_TRUE(named.ends_with(isUTF8 ? damage.name : "636166e92e747874")) << named;
  }
}

TEST_F(Verify, RefusesWhatIsNoWholeSnapshot) {
  const std::string whole = host(device_, {"snapshot"}).out;
  std::string flipped = whole;
  flipped[flipped.size() / 2] ^= 1;
  const size_t second = whole.find('\n') + 1;
  const struct {
    std::string content;
    const char* message;
  } kCases[] = {
      {"", "is no snapshot"},
      {"{\"type\":\"summary\"}\n" + whole, "is no snapshot"},
      {"{\"type\":\"snapshot\",\"version\":2}\n" + whole.substr(second),
       "is a snapshot of another version"},
      {whole.substr(0, whole.size() - 1), "is truncated"},
      {flipped, "is damaged"},
      {whole.substr(0, second) + whole.substr(whole.find('\n', second) + 1), "is damaged"},
      {whole + whole, "is damaged"},
  };
  for (const auto& damaged : kCases) {
    const std::string path = scratch_.makeFile("damaged", damaged.content);
    const ProcessOutcome outcome = host(device_, {"verify", "--against", path});
    EXPECT_EQ(outcome.status, 2) << damaged.message;
    EXPECT_NE(outcome.err.find(path + ": " + damaged.message), std::string::npos) << outcome.err;
  }
}

}  // namespace
}  // namespace pallion::test
