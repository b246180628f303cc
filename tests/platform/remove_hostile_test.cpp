#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <stdio.h>
#include <string>
#include <thread>
#include <vector>

#include "tests/helpers/mounts.h"
#include "tests/platform/removal_fixture.h"

namespace pallion::test {
namespace {

TEST(Remove, ReportsEachFailingItemOnceByItsPathAndGoesOn) {
  const TemporaryRoot root;
  const std::string top = root.makeDirectory("top");
  makeChain(top, 100);
  Reports expected;
  std::vector<std::string> stuck;
  // At levels that keep their descriptors, that lose them, and beside branches that make the walk
  // come back.
  for (const char* level : {"", "/level", "/level/level/level"}) {
    for (int i = 0; i < 5; ++i)
      makeChain(root.makeDirectory("top" + std::string(level) + "/b" + std::to_string(i)), 60);
    stuck.push_back(top + level + "/b2/level/stuck");
    stuck.push_back(top + level + "/stuck");
  }
  stuck.push_back(top + chainPath(90) + "/stuck");
  std::vector<std::unique_ptr<Immutable>> locks;
  for (const std::string& path : stuck) {
    touch(path);
    locks.push_back(std::make_unique<Immutable>(path));
    if (!locks.back()->works())
      GTEST_SKIP() << "needs a file system with immutable files, and root";
    expected.emplace_back(path, EPERM);
  }
  std::sort(expected.begin(), expected.end());

  const Removal stopped = removeAt(top, [] { return false; });
  EXPECT_EQ(stopped.number, EPERM);
  EXPECT_EQ(stopped.reports.size(), 1U);
  const Removal outcome = removeAt(top + "//");
  EXPECT_EQ(outcome.number, EPERM);
  EXPECT_EQ(outcome.reports, expected);
  EXPECT_EQ(countFiles(top), stuck.size());
  const Removal single = removeAt(stuck[1]);
  EXPECT_EQ(single.reports, (Reports{{stuck[1], EPERM}}));

  locks.clear();
  EXPECT_EQ(removeAt(top).number, 0);
}

TEST(Remove, ADirectoryMovedAwayLeadsNowhereElse) {
  const TemporaryRoot root;
  const Canary canary(root);
  struct Case {
    const char* files;     // beside what is moved: to be removed all the same
    bool movesNextAsWell;  // so that the way down from the top ends early, too
  };
  for (const Case& each : {Case{"top/level/", false}, Case{"top/", true}}) {
    SCOPED_TRACE(each.files);
    makeChain(root.makeDirectory("top"), 80);
    for (int i = 0; i < 50; ++i) root.makeFile(each.files + std::to_string(i));
    const std::string stuck = root.makeFile("top" + chainPath(70) + "/stuck");
    Immutable lock(stuck);
    if (!lock.works()) GTEST_SKIP() << "needs a file system with immutable files, and root";
    // The walk stands far below when its way back is moved beside the canary.
    const std::string moved = root / "canary/moved";
    const std::string next = root / "canary/next";
    const Removal outcome = removeAt(root / "top", [&] {
      rename((root / "top/level/level").c_str(), moved.c_str());
      if (each.movesNextAsWell) rename((root / "top/level").c_str(), next.c_str());
      return true;
    });
    lock.moved(moved + chainPath(68) + "/stuck");
    EXPECT_EQ(outcome.number, EPERM);
    EXPECT_EQ(outcome.reports, (Reports{{stuck, EPERM}}));
    EXPECT_TRUE(canary.isWhole());
    EXPECT_TRUE(exists(moved + chainPath(68) + "/stuck"));
    EXPECT_EQ(exists(root / "top"), !each.movesNextAsWell);
    EXPECT_TRUE(!exists(root / "top") || countFiles(root / "top") == 0);
    lock.release();
    for (const char* name : {"top", "canary/moved", "canary/next"}) removeAt(root / name);
  }
}

TEST(Remove, ExchangedLinksLeadNowhereElse) {
  const TemporaryRoot root;
  const Canary canary(root);
  const std::string top = root / "tree";
  std::atomic<bool> removing = false;
  std::atomic<int> swaps = 0;
  const std::jthread swapper([&](const std::stop_token& stop) {
    const std::string first = top + "/a/first";
    const std::string second = top + "/a/second";
    while (!stop.stop_requested()) {
      const bool swapped =
          renameat2(AT_FDCWD, first.c_str(), AT_FDCWD, second.c_str(), RENAME_EXCHANGE) == 0;
      if (swapped && removing) ++swaps;
    }
  });
  int failures = 0;
  for (int round = 0; round < 150; ++round) {
    // Complete before the swapper finds it.
    root.makeLink("new/a/second", canary.directory);
    for (int i = 0; i < 30; ++i) root.makeFile("new/a/first/sub/" + std::to_string(i));
    ASSERT_EQ(rename((root / "new").c_str(), top.c_str()), 0);
    removing = true;
    const Removal outcome = removeAt(top);
    removing = false;
    ASSERT_EQ(outcome.number == 0, outcome.reports.empty());
    ASSERT_EQ(outcome.number == 0, !exists(top));
    ASSERT_TRUE(canary.isWhole());
    if (outcome.number == 0) continue;
    const std::string left = root / ("left" + std::to_string(++failures));
    ASSERT_EQ(rename(top.c_str(), left.c_str()), 0);
  }
  EXPECT_GT(swaps, 150);
  RecordProperty("swaps", swaps);
  // Each call that meets something else than the one before tries again, so hardly any removal
  // fails.
  EXPECT_LT(failures, 15);
}

TEST(Remove, WhatIsMountedInTheTreeStays) {
  if (!test::canMount()) GTEST_SKIP() << "mounting needs CAP_SYS_ADMIN";
  const TemporaryRoot root;
  const Canary canary(root);
  const std::string top = root.makeDirectory("top");
  for (const char* name : {"volume", "bound", "gone", "in/bound"}) {
    root.makeDirectory("top/" + std::string(name));
  }
  root.makeFile("top/file");
  root.makeFile("top/in/file");
  EXPECT_TRUE(test::runInMountNamespace([&] {
    const auto volume = test::Mount::tmpfs(top + "/volume");
    const auto bound = test::Mount::bind(canary.directory, top + "/bound");
    const auto below = test::Mount::bind(canary.directory, top + "/in/bound");
    const auto file = test::Mount::bind(canary.file, top + "/file");
    ASSERT_TRUE(volume.mounted() && bound.mounted() && below.mounted() && file.mounted());
    touch(top + "/volume/inside");
    Removal outcome = removeAt(top);
    EXPECT_EQ(outcome.number, EBUSY);
    EXPECT_EQ(outcome.reports, (Reports{{top + "/bound", EBUSY},
                                        {top + "/file", EBUSY},
                                        {top + "/in/bound", EBUSY},
                                        {top + "/volume", EBUSY}}));
    EXPECT_TRUE(canary.isWhole());
    EXPECT_TRUE(exists(top + "/volume/inside"));
    EXPECT_FALSE(exists(top + "/gone"));
    EXPECT_FALSE(exists(top + "/in/file"));
    outcome = removeAt(top + "/bound");
    EXPECT_EQ(outcome.reports, (Reports{{top + "/bound", EBUSY}}));
    EXPECT_TRUE(canary.isWhole());
  }));
}

}  // namespace
}  // namespace pallion::test
