#include "platform/migration_log.h"

#include <unistd.h>

#include "platform/log_file.h"
#include "platform/log_line.h"
#include "platform/replaceable.h"

namespace pallion {

namespace {

class StandardErrorSink : public MigrationLogSink {
 public:
  void write(const MigrationLogRecord& record) override {
    file_.write(
        formatLogLine(LogFormat::kText, {currentTime(), record.level, record.category, record.file,
                                         record.line, record.function, record.message}));
  }

 private:
  LogFile file_{STDERR_FILENO};
};

using Seam = Replaceable<MigrationLogSink, StandardErrorSink>;

}  // namespace

MigrationLogSink& MigrationLogSink::current() { return Seam::current(); }

MigrationLogSink* MigrationLogSink::replace(MigrationLogSink* sink) { return Seam::replace(sink); }

}  // namespace pallion
