#pragma once

#include <cstdint>
#include <string>

#include "platform/registry_database.h"

namespace pallion {

// One execution of a prepared statement of the registry's database. One thread at a time.
class RegistryDatabase::Run {
 public:
  Run(RegistryDatabase& database, const char* sql)
      : database_(database), statement_(database.prepared(sql)) {}
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  ~Run();

  // The text must live until the execution has ended.
  Run& bind(const std::string& text);
  Run& bind(int64_t number);
  // Goes to the next row; false at the end and on failure, which `succeeded` tells apart.
  bool next();
  [[nodiscard]] bool succeeded() const { return statement_ && !failed_; }
  bool execute() {
    next();
    return succeeded();
  }

  // Columns of the row, from 0.
  [[nodiscard]] std::string text(int column) const;
  [[nodiscard]] int64_t integer(int column) const;
  // A directory's name. What is no plain name is joined to no path: the database is damaged.
  enum class MayBeEmpty { kNo, kYes };
  [[nodiscard]] std::string name(int column, MayBeEmpty mayBeEmpty = MayBeEmpty::kNo);

 private:
  void check(int result);

  RegistryDatabase& database_;
  sqlite3_stmt* statement_;
  int bound_ = 0;
  bool failed_ = false;
};

}  // namespace pallion
