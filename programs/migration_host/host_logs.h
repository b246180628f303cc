#pragma once

#include <memory>
#include <string>

#include "platform/migration_log.h"
#include "platform/product_log.h"
#include "programs/migration_host/options.h"

namespace pallion::host {

// Hears what the migrator logs as an error (level 3).
class ErrorListener {
 public:
  ErrorListener() = default;
  ErrorListener(const ErrorListener&) = delete;
  ErrorListener& operator=(const ErrorListener&) = delete;
  virtual ~ErrorListener() = default;
  virtual void errorLogged(std::string_view message) = 0;
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
  // `listener` may be null.
  HostLogs(const Options& options, int descriptor, ErrorListener* listener);
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
