#include "platform/registry_database.h"
#include "platform/registry_statement.h"

// What the registry's database holds: a statement for each question and each change.

namespace pallion {

// The row that `run` is at, with the type in `column` and the others behind it.
BundleRow RegistryDatabase::bundleRow(const std::string& identifier, Run& run, int column) {
  const std::string container = run.name(column + 2, Run::MayBeEmpty::kYes);
  const auto withoutBundle = container.empty() ? Run::MayBeEmpty::kYes : Run::MayBeEmpty::kNo;
  return {identifier,
          run.text(column),
          run.name(column + 1),
          container,
          run.name(column + 3, withoutBundle),
          run.integer(column + 4) != 0,
          run.text(column + 5)};
}

bool RegistryDatabase::findBundle(const std::string& identifier, std::optional<BundleRow>& row) {
  row.reset();
  Run run(*this,
          "SELECT type, data, container, bundle, placeholder, version FROM bundles WHERE "
          "identifier = ?");
  if (run.bind(identifier).next()) {
    row = bundleRow(identifier, run, 0);
  }
  return run.succeeded();
}

bool RegistryDatabase::allBundles(std::vector<BundleRow>& rows) {
  Run run(*this,
          "SELECT identifier, type, data, container, bundle, placeholder, version FROM bundles"
          " ORDER BY identifier");
  while (run.next()) {
    rows.push_back(bundleRow(run.text(0), run, 1));
  }
  return run.succeeded();
}

bool RegistryDatabase::storeBundle(const BundleRow& row) {
  return Run(*this, "INSERT OR REPLACE INTO bundles VALUES(?, ?, ?, ?, ?, ?, ?)")
      .bind(row.identifier)
      .bind(row.type)
      .bind(row.data)
      .bind(row.container)
      .bind(row.bundle)
      .bind(int64_t{row.placeholder})
      .bind(row.version)
      .execute();
}

bool RegistryDatabase::isBundleContainerUsed(const std::string& uuid, bool& used) {
  Run run(*this, "SELECT 1 FROM bundles WHERE container = ? LIMIT 1");
  used = run.bind(uuid).next();
  return run.succeeded();
}

bool RegistryDatabase::findGroup(const std::string& identifier,
                                 std::optional<std::string>& container) {
  container.reset();
  Run run(*this, "SELECT container FROM groups WHERE identifier = ?");
  if (run.bind(identifier).next()) container = run.name(0);
  return run.succeeded();
}

bool RegistryDatabase::allGroups(std::vector<GroupRow>& rows) {
  Run run(*this, "SELECT identifier, container FROM groups");
  while (run.next()) rows.push_back({run.text(0), run.name(1)});
  return run.succeeded();
}

bool RegistryDatabase::storeGroup(const GroupRow& row) {
  return Run(*this, "INSERT INTO groups VALUES(?, ?)")
      .bind(row.identifier)
      .bind(row.container)
      .execute();
}

bool RegistryDatabase::groupsOfBundle(const std::string& bundle, std::vector<GroupRow>& rows) {
  Run run(*this,
          "SELECT identifier, container FROM memberships JOIN groups ON identifier = member_of"
          " WHERE bundle = ? ORDER BY identifier");
  run.bind(bundle);
  while (run.next()) rows.push_back({run.text(0), run.name(1)});
  return run.succeeded();
}

bool RegistryDatabase::storeGroupsOfBundle(const std::string& bundle,
                                           const std::vector<std::string>& groups) {
  bool stored = Run(*this, "DELETE FROM memberships WHERE bundle = ?").bind(bundle).execute();
  for (const std::string& group : groups) {
    stored = stored && Run(*this, "INSERT OR IGNORE INTO memberships VALUES(?, ?)")
                           .bind(bundle)
                           .bind(group)
                           .execute();
  }
  return stored;
}

bool RegistryDatabase::allTrash(std::vector<TrashRow>& rows) {
  Run run(*this, "SELECT uuid, kind, successor FROM trash");
  while (run.next())
    rows.push_back({run.name(0), static_cast<TrashRow::Kind>(run.integer(1)),
                    run.name(2, Run::MayBeEmpty::kYes)});
  return run.succeeded();
}

bool RegistryDatabase::storeTrash(const TrashRow& row) {
  return Run(*this, "INSERT OR REPLACE INTO trash VALUES(?, ?, ?)")
      .bind(row.uuid)
      .bind(static_cast<int64_t>(row.kind))
      .bind(row.successor)
      .execute();
}

bool RegistryDatabase::removeTrash(const std::string& uuid) {
  return Run(*this, "DELETE FROM trash WHERE uuid = ?").bind(uuid).execute();
}

bool RegistryDatabase::findHarbor(const std::string& identifier, std::optional<HarborRow>& row) {
  row.reset();
  Run run(*this, "SELECT uuid, source, type FROM harbors WHERE identifier = ?");
  if (run.bind(identifier).next()) {
    row = HarborRow{run.name(0), identifier, run.text(1), static_cast<int>(run.integer(2))};
  }
  return run.succeeded();
}

bool RegistryDatabase::readHarbors(const char* sql, std::vector<HarborRow>& rows) {
  Run run(*this, sql);
  while (run.next())
    rows.push_back({run.name(0), run.text(1), run.text(2), static_cast<int>(run.integer(3))});
  return run.succeeded();
}

bool RegistryDatabase::allHarbors(std::vector<HarborRow>& rows) {
  return readHarbors("SELECT uuid, identifier, source, type FROM harbors ORDER BY identifier",
                     rows);
}

bool RegistryDatabase::allPendingHarbors(std::vector<HarborRow>& rows) {
  return readHarbors("SELECT uuid, identifier, source, type FROM pending_harbors", rows);
}

bool RegistryDatabase::storeHarbor(const HarborRow& row) {
  return Run(*this,
             "INSERT OR REPLACE INTO harbors(uuid, identifier, source, type) VALUES(?, ?, ?, ?)")
      .bind(row.uuid)
      .bind(row.identifier)
      .bind(row.source)
      .bind(int64_t{row.type})
      .execute();
}

bool RegistryDatabase::storePendingHarbor(const HarborRow& row) {
  return Run(*this,
             "INSERT INTO pending_harbors(uuid, identifier, source, type) VALUES(?, ?, ?, ?)")
      .bind(row.uuid)
      .bind(row.identifier)
      .bind(row.source)
      .bind(int64_t{row.type})
      .execute();
}

bool RegistryDatabase::removePendingHarbor(const std::string& uuid) {
  return Run(*this, "DELETE FROM pending_harbors WHERE uuid = ?").bind(uuid).execute();
}

}  // namespace pallion
