#pragma once

#include <string>
#include <vector>

#include "platform/migration_log.h"
#include "platform/product_log.h"

namespace pallion::test {

// Hears the host's log for its lifetime; a line is "<level> <message>".
class RecordedHostLog : public MigrationLogSink {
 public:
  RecordedHostLog() { replace(this); }
  ~RecordedHostLog() override { replace(nullptr); }
  void write(const MigrationLogRecord& record) override {
    lines.push_back(std::to_string(record.level) + " " + std::string(record.message));
    categories.emplace_back(record.category);
    functions.emplace_back(record.function);
  }
  std::vector<std::string> lines;
  std::vector<std::string> categories;
  std::vector<std::string> functions;
};

// Hears the product's log for its lifetime; a line is "<level> <function>: <message>".
class RecordedProductLog : public LogHandle {
 public:
  explicit RecordedProductLog(int level = kLogNotice) : LogHandle(level), before_(gLogHandle) {
    gLogHandle = this;
  }
  ~RecordedProductLog() override { gLogHandle = before_; }
  void write(int level, std::string_view function, std::string_view message) override {
    lines.push_back(std::to_string(level) + " " + std::string(function) + ": " +
                    std::string(message));
  }
  std::vector<std::string> lines;

 private:
  LogHandle* before_;
};

}  // namespace pallion::test
