#include "platform/registry_database.h"

#include <sqlite3.h>
#include <utility>

#include "platform/registry_statement.h"

namespace pallion {

namespace {

constexpr int kSchemaVersion = 1;
constexpr int kBusyMilliseconds = 5000;
// Of 4 KiB each; an installation writes three or four. Emptying the log takes two syncs.
constexpr int kCheckpointPages = 4000;

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

// Stands on a row from its first step on: there are always tables.
constexpr const char* kHoldingStatement = "SELECT 1 FROM sqlite_schema";

int rememberLogPages(void* pages, sqlite3*, const char*, int count) {
  *static_cast<int*>(pages) = count;
  return SQLITE_OK;
}

}  // namespace

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
    letGo();
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

// Every read and every transaction takes and drops a reader's locks by several calls, unless a
// statement of the connection that has not come to its end holds them. There is one writer, whose
// state is never behind.
bool RegistryDatabase::hold() {
  if (holds_ || (!writes_ && !inOneState_)) return true;
  sqlite3_stmt* statement = prepared(kHoldingStatement);
  if (!statement) return false;
  holds_ = sqlite3_step(statement) == SQLITE_ROW;
  if (!holds_) sqlite3_reset(statement);
  return holds_ || fail();
}

void RegistryDatabase::letGo() {
  if (holds_) sqlite3_reset(prepared(kHoldingStatement));
  holds_ = false;
}

RegistryDatabase::OneState::OneState(RegistryDatabase* database) : database_(database) {
  if (database_) database_->inOneState_ = true;
}

RegistryDatabase::OneState::~OneState() {
  if (!database_) return;
  database_->inOneState_ = false;
  // Whoever only reads holds no writer up for longer than this.
  if (!database_->writes_) database_->letGo();
}

bool RegistryDatabase::begin() { return step("BEGIN IMMEDIATE"); }

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
  letGo();
  sqlite3_busy_timeout(handle_, 0);  // a reader only postpones it
  const int result =
      sqlite3_wal_checkpoint_v2(handle_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
  sqlite3_busy_timeout(handle_, kBusyMilliseconds);
  checkpointAt_ = (result == SQLITE_OK ? 0 : logPages_) + kCheckpointPages;
  if (result == SQLITE_OK) logPages_ = 0;
}

}  // namespace pallion
