#include "platform/registry_statement.h"

#include <sqlite3.h>

#include "foundation/url.h"

namespace pallion {

RegistryDatabase::Run::~Run() {
  if (!statement_) return;
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

RegistryDatabase::Run& RegistryDatabase::Run::bind(const std::string& text) {
  if (statement_)
    check(sqlite3_bind_text64(statement_, ++bound_, text.data(), text.size(), SQLITE_STATIC,
                              SQLITE_UTF8));
  return *this;
}

RegistryDatabase::Run& RegistryDatabase::Run::bind(int64_t number) {
  if (statement_) check(sqlite3_bind_int64(statement_, ++bound_, number));
  return *this;
}

bool RegistryDatabase::Run::next() {
  if (!statement_ || failed_) return false;
  if (!database_.hold()) failed_ = true;
  if (failed_) return false;
  const int result = sqlite3_step(statement_);
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) check(result);
  return false;
}

std::string RegistryDatabase::Run::text(int column) const {
  const void* bytes = sqlite3_column_blob(statement_, column);
  return bytes ? std::string(static_cast<const char*>(bytes),
                             static_cast<size_t>(sqlite3_column_bytes(statement_, column)))
               : std::string();
}

int64_t RegistryDatabase::Run::integer(int column) const {
  return sqlite3_column_int64(statement_, column);
}

std::string RegistryDatabase::Run::name(int column, MayBeEmpty mayBeEmpty) {
  std::string name = text(column);
  const bool good = isPlainName(name) || (name.empty() && mayBeEmpty == MayBeEmpty::kYes);
  if (!good && !failed_) {
    failed_ = true;
    database_.fail("a record holds what is no directory's name");
  }
  return name;
}

void RegistryDatabase::Run::check(int result) {
  if (result == SQLITE_OK || failed_) return;
  failed_ = true;
  database_.fail();
}

}  // namespace pallion
