#pragma once

#include <ctime>
#include <string>
#include <string_view>

// The two forms of a log line, for both logs.

namespace pallion {

enum class LogFormat { kText, kJSON };

// What a line says. The product log has neither category nor place in the source.
struct LogLine {
  timespec time;              // of CLOCK_REALTIME
  int level;                  // 3 error, 5 notice, 7 debug
  const char* category;       // null in the product log
  const char* file;           // null in the product log
  int line;                   // of `file`
  std::string_view function;  // the operation's full name
  std::string_view message;   // any bytes
};

// A whole line with its newline.
//
// kText: "2026-11-22T21:00:00.123456Z [3] Shiftweller -[PLAppMigrator performMigration]
// (AppMigrator/run.cpp:12): message", of the product log "2026-11-22T21:00:00.123456Z [3]
// -[PLFileManager removeItemAtURL:error:]: message". The message stands there byte for byte, but
// for control bytes, which become "\xHH": a file name with a newline in it forges no line.
//
// kJSON: one object with time, log ("host" or "product"), level, category (host), file, function,
// line (null in the product log) and message. Bytes that are not UTF-8 become the text "\xHH".
std::string formatLogLine(LogFormat format, const LogLine& line);

timespec currentTime();

// RFC 3339 in UTC with microseconds, as both forms have it.
std::string timeText(const timespec& time);

}  // namespace pallion
