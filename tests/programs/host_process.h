#pragma once

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "tests/helpers/child_process.h"
#include "tests/helpers/temporary_root.h"

// What tests of migration-host share.

namespace pallion::test {

using Json = nlohmann::json;
using Words = std::vector<std::string>;

inline const std::string kBinaries = PALLION_BINARY_DIR;
inline const std::string kFakePlugin = kBinaries + "/lib/fake-plugin.so";
inline const std::string kHostLog = "private/var/mobile/Library/Logs/Shiftwell/migration.log";
inline const std::string kProductLog = "private/var/mobile/Library/Logs/Pallion/pallion.log";

// migration-host on a root with the fake plug-in, which does what `script` says. Without progress,
// unless `more` asks for it.
inline ChildProcess::Setup setupFor(const TemporaryRoot& root, const std::string& script,
                                    const Words& more = {}) {
  root.makeFile("fake-migration", script);
  ChildProcess::Setup setup;
  setup.arguments = {kBinaries + "/bin/migration-host", "--root", root.path(), "--plugin",
                     kFakePlugin};
  // The leak check looks into /proc, which such a root does not have.
  setup.environment = {"ASAN_OPTIONS=detect_leaks=0"};
  setup.arguments.insert(setup.arguments.end(), more.begin(), more.end());
  const bool asks = std::any_of(more.begin(), more.end(), [](const std::string& argument) {
    return argument.starts_with("--progress=");
  });
  if (!asks) setup.arguments.push_back("--progress=none");
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

// The last line of a --json run; the lines before have to be JSON too.
inline Json summaryOf(const ProcessOutcome& outcome) {
  Json last;
  for (const std::string& line : lines(outcome.out)) {
    last = Json::parse(line, nullptr, false);
    EXPECT_FALSE(last.is_discarded()) << line;
  }
  EXPECT_EQ(last.value("type", ""), "summary") << outcome.out;
  EXPECT_EQ(last.value("exitStatus", -1), outcome.status);
  return last;
}

inline bool waitUntil(const std::function<bool()>& condition) {
  for (int i = 0; i < 1000 && !condition(); ++i) usleep(10000);
  return condition();
}

}  // namespace pallion::test
