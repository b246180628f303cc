#include <unistd.h>

#include "fuzz/fuzz_target.h"
#include "platform/registry_database.h"
#include "tests/helpers/temporary_root.h"

// The input as the registry's database file.

namespace pallion::fuzz {

namespace {

using Access = RegistryDatabase::Access;

void readEverything(RegistryDatabase& database) {
  const auto isName = [](const std::string& uuid) {
    require(isPlainName(uuid), "what names a container is a plain name");
  };
  std::vector<BundleRow> bundles;
  if (!database.allBundles(bundles)) bundles.clear();
  for (const BundleRow& row : bundles) {
    isName(row.data);
    if (row.hasBundle()) isName(row.container);
    if (row.hasBundle()) isName(row.bundle);
    std::optional<BundleRow> found;
    require(!database.findBundle(row.identifier, found) || !found ||
                found->identifier == row.identifier,
            "a bundle is found by its identifier");
    std::vector<GroupRow> groups;
    if (!database.groupsOfBundle(row.identifier, groups)) continue;
    for (const GroupRow& group : groups) isName(group.container);
  }
  std::vector<GroupRow> groups;
  if (!database.allGroups(groups)) groups.clear();
  for (const GroupRow& row : groups) isName(row.container);
  std::vector<TrashRow> trash;
  if (!database.allTrash(trash)) trash.clear();
  for (const TrashRow& row : trash) {
    isName(row.uuid);
    if (!row.successor.empty()) isName(row.successor);
  }
  std::vector<HarborRow> harbors;
  if (!database.allHarbors(harbors) || !database.allPendingHarbors(harbors)) harbors.clear();
  for (const HarborRow& row : harbors) isName(row.uuid);
}

}  // namespace

void runInput(std::string_view input) {
  static const test::TemporaryRoot root;
  static const std::string path = root / "registry.sqlite";
  for (const char* ending : {"-journal", "-wal", "-shm"}) unlink((path + ending).c_str());
  writeFile(path, input);
  for (const Access access : {Access::kReadOnly, Access::kReadWrite}) {
    Outcome failure;
    const auto database =
        RegistryDatabase::open(path, access, RegistryDatabase::IfEmpty::kAnswerNull, failure);
    require(!failure || !database, "a database that was refused is not answered");
    if (failure) require(!failure->text().empty(), "a refusal has its reason");
    if (!database) continue;
    readEverything(*database);
    if (access == Access::kReadOnly) continue;
    const BundleRow row{"com.example.new", "App", "D", "C", "New.app", false, "1"};
    if (!database->begin() || !database->storeBundle(row) || !database->commit()) {
      database->rollback();
      continue;
    }
    std::optional<BundleRow> found;
    require(database->findBundle(row.identifier, found) && found && found->data == row.data,
            "what was committed is there");
  }
}

}  // namespace pallion::fuzz
