#include "platform/registry_database.h"

#include <filesystem>
#include <gtest/gtest.h>

#include "tests/helpers/temporary_root.h"

namespace pallion::test {
namespace {

TEST(RegistryDatabase, AWriterThatHoldsAReadersLocksIsInNobodysWay) {
  using Access = RegistryDatabase::Access;
  using IfEmpty = RegistryDatabase::IfEmpty;
  const TemporaryRoot root;
  const std::string path = root / "registry.sqlite";
  Outcome failure;
  const auto writer =
      RegistryDatabase::open(path, Access::kReadWrite, IfEmpty::kMakeTables, failure);
  ASSERT_TRUE(writer);
  const auto reader =
      RegistryDatabase::open(path, Access::kReadOnly, IfEmpty::kAnswerNull, failure);
  ASSERT_TRUE(reader);
  const auto groupsOf = [](RegistryDatabase& database) {
    std::vector<GroupRow> rows;
    EXPECT_TRUE(database.allGroups(rows));
    return rows.size();
  };

  EXPECT_EQ(groupsOf(*writer), 0U);  // takes the locks
  // A page each, so that the log becomes too large for the second round.
  constexpr size_t kRows = 4100;
  for (size_t round = 1; round <= 2; ++round) {
    ASSERT_TRUE(writer->begin());
    for (size_t i = 0; i < kRows; ++i) {
      const std::string name = std::to_string(round) + "." + std::to_string(i);
      ASSERT_TRUE(writer->storeGroup({name + std::string(3000, '.'), "container"}));
    }
    EXPECT_EQ(groupsOf(*writer), round * kRows);
    EXPECT_EQ(groupsOf(*reader), (round - 1) * kRows);
    ASSERT_TRUE(writer->commit());
    EXPECT_EQ(groupsOf(*reader), round * kRows);
    EXPECT_GT(std::filesystem::file_size(path + "-wal"), kRows * 4096);
    writer->checkpointIfLarge();
    EXPECT_EQ(std::filesystem::file_size(path + "-wal"), 0U);
    EXPECT_EQ(groupsOf(*writer), round * kRows);
  }
  // What is rolled back is gone for the writer too.
  ASSERT_TRUE(writer->begin() && writer->storeGroup({"gone", "container"}));
  writer->rollback();
  EXPECT_EQ(groupsOf(*writer), 2 * kRows);
}

}  // namespace
}  // namespace pallion::test
