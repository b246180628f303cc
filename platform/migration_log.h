#pragma once

#include <source_location>
#include <string_view>
#include <type_traits>

#include "foundation/format.h"

// The host's log, which plug-ins write to.

namespace pallion {

struct MigrationLogRecord {
  const char* file;
  const char* function;  // full name, such as "-[PLAppMigrator performMigration]"
  int line;
  const char* category;
  int level;  // 3 error, 5 notice
  std::string_view message;
};

// Receives every record of the host's log. Called on the thread that logs.
class MigrationLogSink {
 public:
  MigrationLogSink() = default;
  MigrationLogSink(const MigrationLogSink&) = delete;
  MigrationLogSink& operator=(const MigrationLogSink&) = delete;
  virtual ~MigrationLogSink() = default;
  // The most talkative level that is wanted; records above it are not formatted.
  [[nodiscard]] virtual int level() const { return 7; }
  virtual void write(const MigrationLogRecord& record) = 0;

  // The process's sink, never null: at first one that writes to stderr. `replace` with null goes
  // back to it and answers the sink before; a replacement must outlive its use.
  static MigrationLogSink& current();
  static MigrationLogSink* replace(MigrationLogSink* sink);
};

// A checked message text together with the place in the source that holds it.
template <class... Args>
struct MigrationLogText {
  // NOLINTNEXTLINE(google-explicit-constructor): a literal is meant to turn into a checked text by
  // itself.
  consteval MigrationLogText(const char* text,
                             std::source_location at = std::source_location::current())
      : format(text), where(at) {}
  FormatString<Args...> format;
  std::source_location where;
};

// Writes one record. The text is formatted only when the sink wants the level.
template <class... Args>
void MigrationLog(const char* function, const char* category, int level,
                  MigrationLogText<std::type_identity_t<Args>...> text, const Args&... args) {
  MigrationLogSink& sink = MigrationLogSink::current();
  if (level > sink.level()) return;
  const std::string message = format(text.format, args...);
  sink.write({text.where.file_name(), function, static_cast<int>(text.where.line()), category,
              level, message});
}

}  // namespace pallion
