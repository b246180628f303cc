#include "platform/registry_database.h"

#include <sqlite3.h>
#include <utility>

#include "foundation/url.h"

namespace pallion {

namespace {

constexpr int kSchemaVersion = 1;
constexpr int kBusyMilliseconds = 5000;
// Of 4 KiB each; an installation writes three or four.
constexpr int kCheckpointPages = 1000;

constexpr const char* kTables =
    "CREATE TABLE bundles(identifier TEXT PRIMARY KEY, type TEXT NOT NULL, data TEXT NOT NULL,"
    " container TEXT NOT NULL, bundle TEXT NOT NULL, placeholder INTEGER NOT NULL, version TEXT "
    "NOT NULL)"
    " STRICT, WITHOUT ROWID;"
    "CREATE TABLE groups(identifier TEXT PRIMARY KEY, container TEXT NOT NULL) STRICT, WITHOUT "
    "ROWID;"
    "CREATE TABLE memberships(bundle TEXT, member_of TEXT, PRIMARY KEY(bundle, member_of))"
    " STRICT, WITHOUT ROWID;"
    "CREATE TABLE trash(uuid TEXT PRIMARY KEY, kind INTEGER NOT NULL, successor TEXT NOT NULL)"
    " STRICT, WITHOUT ROWID;"
    "CREATE TABLE harbors(identifier TEXT PRIMARY KEY, uuid TEXT NOT NULL, source TEXT NOT NULL,"
    " type INTEGER NOT NULL) STRICT, WITHOUT ROWID;"
    "CREATE TABLE pending_harbors(uuid TEXT PRIMARY KEY, identifier TEXT NOT NULL, source TEXT NOT "
    "NULL,"
    " type INTEGER NOT NULL) STRICT, WITHOUT ROWID;";

int rememberLogPages(void* pages, sqlite3*, const char*, int count) {
  *static_cast<int*>(pages) = count;
  return SQLITE_OK;
}

}  // namespace

// One execution of a prepared statement.
class RegistryDatabase::Run {
 public:
  Run(RegistryDatabase& database, const char* sql)
      : database_(database), statement_(database.prepared(sql)) {}
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  ~Run() {
    if (!statement_) return;
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
  }

  // The text must live until the execution has ended.
  Run& bind(const std::string& text) {
    if (statement_)
      check(sqlite3_bind_text64(statement_, ++bound_, text.data(), text.size(), SQLITE_STATIC,
                                SQLITE_UTF8));
    return *this;
  }
  Run& bind(int64_t number) {
    if (statement_) check(sqlite3_bind_int64(statement_, ++bound_, number));
    return *this;
  }
  // Goes to the next row; false at the end and on failure, which `succeeded` tells apart.
  bool next() {
    if (!statement_ || failed_) return false;
    if (!database_.holdSnapshot()) failed_ = true;
    if (failed_) return false;
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) return true;
    if (result != SQLITE_DONE) check(result);
    return false;
  }
  [[nodiscard]] bool succeeded() const { return statement_ && !failed_; }
  bool execute() {
    next();
    return succeeded();
  }
  [[nodiscard]] std::string text(int column) const {
    const void* bytes = sqlite3_column_blob(statement_, column);
    return bytes ? std::string(static_cast<const char*>(bytes),
                               static_cast<size_t>(sqlite3_column_bytes(statement_, column)))
                 : std::string();
  }
  // A directory's name. What is no plain name is joined to no path: the database is damaged.
  enum class MayBeEmpty { kNo, kYes };
  [[nodiscard]] std::string name(int column, MayBeEmpty mayBeEmpty = MayBeEmpty::kNo) {
    std::string name = text(column);
    const bool good = isPlainName(name) || (name.empty() && mayBeEmpty == MayBeEmpty::kYes);
    if (!good && !failed_) {
      failed_ = true;
      database_.fail("a record holds what is no directory's name");
    }
    return name;
  }
  [[nodiscard]] int64_t integer(int column) const {
    return sqlite3_column_int64(statement_, column);
  }

 private:
  void check(int result) {
    if (result == SQLITE_OK || failed_) return;
    failed_ = true;
    database_.fail();
  }

  RegistryDatabase& database_;
  sqlite3_stmt* statement_;
  int bound_ = 0;
  bool failed_ = false;
};

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

std::unique_ptr<RegistryDatabase> RegistryDatabase::open(const std::string& path, Access access,
                                                         IfEmpty ifEmpty, Outcome& failure) {
  failure.reset();
  std::unique_ptr<RegistryDatabase> database(new RegistryDatabase(path));
  bool empty = false;
  if (access == Access::kReadWrite) {
    const RegistryFilesScope scope(RegistryFiles::kWritten);
    const bool opened = database->connect(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, "") &&
                        database->examine(empty) &&
                        ((empty && ifEmpty == IfEmpty::kAnswerNull) ||
                         (database->prepareToWrite() && (!empty || database->makeTables())));
    if (!opened) failure = database->failure_;
  } else if (!database->connectToRead(RegistryFiles::kRead, empty)) {
    // A reader leaves the log's index alone that a killed writer has left. Where there is none
    // (removed, or lost with the power), SQLite makes one, here in memory.
    if (sqlite3_errcode(database->handle_) == SQLITE_CANTOPEN) {
      database.reset(new RegistryDatabase(path));
      if (!database->connectToRead(RegistryFiles::kReadWithOwnIndex, empty))
        failure = database->failure_;
    } else {
      failure = database->failure_;
    }
  }
  if (failure || (empty && ifEmpty == IfEmpty::kAnswerNull)) return nullptr;
  return database;
}

bool RegistryDatabase::connectToRead(RegistryFiles files, bool& empty) {
  const RegistryFilesScope scope(files);
  const char* const parameters = files == RegistryFiles::kRead ? "?readonly_shm=1" : "";
  return connect(SQLITE_OPEN_READONLY, parameters) && examine(empty);
}

RegistryDatabase::~RegistryDatabase() {
  if (writes_) {
    rollback();
    // Both fail while another process reads; then its connection, or the next one here, does it.
    sqlite3_busy_timeout(handle_, 0);
    execute("PRAGMA journal_mode = DELETE");
  }
  for (const auto& [sql, statement] : statements_) sqlite3_finalize(statement);
  sqlite3_close(handle_);
}

bool RegistryDatabase::fail(const std::string& cause) {
  failure_ = Refusal{RegistryErrorCode::kDatabase, "Registry database " + path_, 0, cause};
  return false;
}

bool RegistryDatabase::fail() {
  fail(sqlite3_errmsg(handle_));
  failure_.errorNumber = handle_ ? sqlite3_system_errno(handle_) : 0;
  return false;
}

bool RegistryDatabase::connect(int flags, const char* parameters) {
  const std::string location = URL::fileURL(path_).absoluteString() + parameters;
  const int result = sqlite3_open_v2(location.c_str(), &handle_,
                                     flags | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr);
  if (result != SQLITE_OK) return fail();
  sqlite3_busy_timeout(handle_, kBusyMilliseconds);
  return true;
}

bool RegistryDatabase::examine(bool& empty) {
  int64_t version = 0;
  if (!queryInteger("PRAGMA user_version", version)) return false;
  std::string tables;
  {
    Run schema(*this, "SELECT ifnull(group_concat(sql, ';') || ';', '') FROM sqlite_schema");
    if (!schema.next()) return false;
    tables = schema.text(0);
  }
  empty = version == 0 && tables.empty();
  if (empty) return true;
  if (version != kSchemaVersion) return fail("unknown version " + std::to_string(version));
  // A trigger or a view would act and answer in a table's place.
  if (tables != kTables) return fail("unknown tables");
  Run check(*this, "PRAGMA quick_check(1)");
  if (!check.next()) return false;
  const std::string finding = check.text(0);
  return finding == "ok" || fail(finding);
}

bool RegistryDatabase::prepareToWrite() {
  if (!execute("PRAGMA journal_mode = WAL") || !execute("PRAGMA synchronous = FULL") ||
      !execute("PRAGMA wal_autocheckpoint = 0") || !execute("PRAGMA temp_store = MEMORY")) {
    return false;
  }
  sqlite3_wal_hook(handle_, rememberLogPages, &logPages_);
  checkpointAt_ = kCheckpointPages;
  writes_ = true;
  return true;
}

bool RegistryDatabase::makeTables() {
  return begin() && execute(kTables) && execute("PRAGMA user_version = 1") && commit();
}

sqlite3_stmt* RegistryDatabase::prepared(const char* sql) {
  sqlite3_stmt*& statement = statements_[sql];
  if (!statement && sqlite3_prepare_v3(handle_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement,
                                       nullptr) != SQLITE_OK) {
    fail();
  }
  return statement;
}

bool RegistryDatabase::execute(const char* sql) {
  return sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr) == SQLITE_OK || fail();
}

bool RegistryDatabase::queryInteger(const char* sql, int64_t& number) {
  Run run(*this, sql);
  if (!run.next()) return false;
  number = run.integer(0);
  return true;
}

// Every read takes and drops locks by several calls unless it is part of a transaction. There is
// one writer, so a transaction that a read began never is behind, and can be written in.
bool RegistryDatabase::holdSnapshot() {
  return !writes_ || !sqlite3_get_autocommit(handle_) || step("BEGIN");
}

bool RegistryDatabase::begin() {
  return !sqlite3_get_autocommit(handle_) || step("BEGIN IMMEDIATE");
}

bool RegistryDatabase::commit() { return step("COMMIT"); }

bool RegistryDatabase::step(const char* sql) {
  sqlite3_stmt* statement = prepared(sql);
  if (!statement) return false;
  const bool done = sqlite3_step(statement) == SQLITE_DONE || fail();
  sqlite3_reset(statement);
  return done;
}

void RegistryDatabase::rollback() {
  // A failed commit or a full disk may have rolled back already.
  if (!sqlite3_get_autocommit(handle_))
    sqlite3_exec(handle_, "ROLLBACK", nullptr, nullptr, nullptr);
}

void RegistryDatabase::checkpointIfLarge() {
  if (logPages_ < checkpointAt_) return;
  sqlite3_busy_timeout(handle_, 0);  // a reader only postpones it
  const int result =
      sqlite3_wal_checkpoint_v2(handle_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
  sqlite3_busy_timeout(handle_, kBusyMilliseconds);
  checkpointAt_ = (result == SQLITE_OK ? 0 : logPages_) + kCheckpointPages;
  if (result == SQLITE_OK) logPages_ = 0;
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
