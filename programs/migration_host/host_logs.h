#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/journal.h"
#include "platform/log_line.h"
#include "platform/migration_log.h"
#include "platform/product_log.h"
#include "programs/migration_host/options.h"

namespace pallion::host {

// The product log's place inside the root; the report of the last run stands beside it.
inline constexpr std::string_view kProductLogFolder = "/private/var/mobile/Library/Logs/Pallion/";

// The log that a line is of: "host" or "product".
const char* logOf(const LogLine& line);

// Hears every line that is written to one of the logs, on the thread that logs, and knows what the
// lines are about.
class LogListener {
 public:
  LogListener() = default;
  LogListener(const LogListener&) = delete;
  LogListener& operator=(const LogListener&) = delete;
  virtual ~LogListener() = default;
  virtual void lineLogged(const LogLine& line) = 0;
  // The identifier of the container in hand; empty for none.
  virtual std::string containerInHand() = 0;
};

// Opens the file of `--log` for both logs; to be done before the root changes. The descriptor,
// which stays open until the process ends, or -1 and errno.
int openLogFile(const std::string& path);

// The same for a command that only looks, whose log lines are no part of the device's history: only
// `--log` and `-v` show them. Always a descriptor.
int openLogOfQuestion(const Options& options);

// Both logs of the process while this object lives. A file that can't be written is one line on
// standard error; it never stops a run.
class HostLogs {
 public:
  // `descriptor` gets the lines of both logs; for -1 they go to the two files inside the root.
  // `journal` gets every line besides. Journal and listener may be null.
  HostLogs(const Options& options, int descriptor, const Journal* journal, LogListener* listener);
  HostLogs(const HostLogs&) = delete;
  HostLogs& operator=(const HostLogs&) = delete;
  ~HostLogs();

 private:
  class ProductHandle;
  class HostSink;
  std::unique_ptr<ProductHandle> product_;
  std::unique_ptr<HostSink> host_;
};

}  // namespace pallion::host
