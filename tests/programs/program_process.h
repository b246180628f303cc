#pragma once

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "tests/helpers/child_process.h"
#include "tests/helpers/temporary_root.h"
#include "tests/helpers/tree_snapshot.h"

// What tests of the programs share.

namespace pallion::test {

using Json = nlohmann::json;
using Words = std::vector<std::string>;

inline const std::string kBinaries = PALLION_BINARY_DIR;
inline const std::string kFakePlugin = kBinaries + "/lib/fake-plugin.so";
inline const std::string kHostLog = "private/var/mobile/Library/Logs/Shiftwell/migration.log";
inline const std::string kProductLog = "private/var/mobile/Library/Logs/Pallion/pallion.log";
inline const std::string kReport = "private/var/mobile/Library/Logs/Pallion/migration-report.json";

inline Words wordsOf(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

inline ChildProcess::Setup setupOf(const std::string& program, const Words& arguments,
                                   const Words& more = {}) {
  ChildProcess::Setup setup;
  setup.arguments = {kBinaries + "/bin/" + program};
  setup.arguments.insert(setup.arguments.end(), arguments.begin(), arguments.end());
  setup.arguments.insert(setup.arguments.end(), more.begin(), more.end());
  // The leak check looks into /proc, which a root of ours does not have.
  setup.environment = {"ASAN_OPTIONS=detect_leaks=0"};
  return setup;
}

inline ProcessOutcome host(const std::string& root, const Words& more = {}) {
  return runProcess(setupOf("migration-host", {"--root", root}, more));
}

inline void makeOldLayout(const std::string& root, const std::string& options) {
  const ProcessOutcome outcome =
      runProcess(setupOf("make-old-layout", {"--root", root}, wordsOf(options)));
  ASSERT_EQ(outcome.status, 0) << outcome.err;
}

// migration-host on a root with the fake plug-in, which does what `script` says. Without progress,
// unless `more` asks for it.
inline ChildProcess::Setup setupFor(const TemporaryRoot& root, const std::string& script,
                                    const Words& more = {}) {
  root.makeFile("fake-migration", script);
  ChildProcess::Setup setup =
      setupOf("migration-host", {"--root", root.path(), "--plugin", kFakePlugin}, more);
  const auto asks = [](const std::string& word) { return word.starts_with("--progress="); };
  if (std::ranges::none_of(more, asks)) setup.arguments.emplace_back("--progress=none");
  return setup;
}

inline ProcessOutcome run(const TemporaryRoot& root, const std::string& script,
                          const Words& more = {}) {
  return runProcess(setupFor(root, script, more));
}

inline Words lines(const std::string& text) {
  Words all;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) all.push_back(line);
  return all;
}

// The lines of a --json run, of which the last one is the summary.
inline std::vector<Json> jsonLines(const ProcessOutcome& outcome) {
  std::vector<Json> all;
  for (const std::string& line : lines(outcome.out)) {
    all.push_back(Json::parse(line, nullptr, false));
    EXPECT_FALSE(all.back().is_discarded()) << line;
  }
  if (all.empty()) all.push_back(Json::object());
  EXPECT_EQ(all.back().value("type", ""), "summary") << outcome.out << outcome.err;
  EXPECT_EQ(all.back().value("exitStatus", -1), outcome.status);
  return all;
}

inline Json summaryOf(const ProcessOutcome& outcome) { return jsonLines(outcome).back(); }

inline bool waitUntil(const std::function<bool()>& condition) {
  for (int i = 0; i < 1000 && !condition(); ++i) usleep(10000);
  return condition();
}

// With all times. Links are read before, because that counts as access, which nobody can hide.
inline TreeSnapshot snapshotWithTimes(const std::string& root) {
  snapshotTree(root);
  return snapshotTree(root, {.accessTimes = true, .changeTimes = true});
}

// Property lists: a dictionary, and an entry of it.
inline std::string plist(const std::string& entries) {
  return "<plist version=\"1.0\"><dict>" + entries + "</dict></plist>";
}
inline std::string entry(const std::string& key, const std::string& text) {
  return "<key>" + key + "</key><string>" + text + "</string>";
}

}  // namespace pallion::test
