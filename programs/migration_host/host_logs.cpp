#include "programs/migration_host/host_logs.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "platform/log_file.h"
#include "programs/common/console.h"

namespace pallion::host {

namespace {

constexpr const char* kHostLog = "/private/var/mobile/Library/Logs/Shiftwell/migration.log";

int levelFor(const Options& options) {
  if (options.verbose) return kLogDebug;
  return options.quiet ? kLogError : kLogNotice;
}

// One of the two logs' way to its file.
class LogWriter {
 public:
  LogWriter(LogFormat format, int descriptor, const std::string& path) : format_(format) {
    if (descriptor >= 0) {
      file_ = std::make_unique<LogFile>(descriptor);
    } else {
      file_ = std::make_unique<LogFile>(path);
    }
  }

  void write(const LogLine& line) {
    const int error = file_->write(formatLogLine(format_, line));
    if (error == 0 || failed_.exchange(true)) return;
    complain("warning: log lines are lost: " + (file_->path().empty() ? "log" : file_->path()),
             error);
  }

 private:
  const LogFormat format_;
  std::unique_ptr<LogFile> file_;
  std::atomic<bool> failed_{false};
};

}  // namespace

class HostLogs::ProductHandle : public LogHandle {
 public:
  ProductHandle(const Options& options, int descriptor, LineListener* listener)
      : LogHandle(levelFor(options)),
        listener_(listener),
        writer_(options.logFormat, descriptor, std::string(kProductLogFolder) + "pallion.log") {}
  void write(int level, std::string_view function, std::string_view message) override {
    const LogLine line{currentTime(), level, nullptr, nullptr, 0, function, message};
    writer_.write(line);
    if (listener_) listener_->lineLogged(line);
  }

 private:
  LineListener* const listener_;
  LogWriter writer_;
};

class HostLogs::HostSink : public MigrationLogSink {
 public:
  HostSink(const Options& options, int descriptor, LineListener* listener)
      : level_(levelFor(options)),
        listener_(listener),
        writer_(options.logFormat, descriptor, kHostLog) {}
  [[nodiscard]] int level() const override { return level_; }
  void write(const MigrationLogRecord& record) override {
    const LogLine line{currentTime(), record.level,    record.category, record.file,
                       record.line,   record.function, record.message};
    writer_.write(line);
    if (listener_) listener_->lineLogged(line);
  }

 private:
  const int level_;
  LineListener* const listener_;
  LogWriter writer_;
};

int openLogFile(const std::string& path) {
  // O_NONBLOCK: a FIFO without a reader fails at once (ENXIO) instead of waiting for one.
  const int descriptor =
      open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
  // A pipe that is full is waited for; lines are not dropped.
  if (descriptor >= 0) fcntl(descriptor, F_SETFL, O_APPEND);
  return descriptor;
}

int openLogOfQuestion(const Options& options) {
  if (options.logFile.empty() && options.verbose) return STDERR_FILENO;
  const int log = openLogFile(options.logFile.empty() ? "/dev/null" : options.logFile);
  if (log >= 0) return log;
  complain("warning: logging to standard error instead of " + options.logFile, errno);
  return STDERR_FILENO;
}

HostLogs::HostLogs(const Options& options, int descriptor, LineListener* listener)
    : product_(std::make_unique<ProductHandle>(options, descriptor, listener)),
      host_(std::make_unique<HostSink>(options, descriptor, listener)) {
  gLogHandle = product_.get();
  MigrationLogSink::replace(host_.get());
}

HostLogs::~HostLogs() {
  MigrationLogSink::replace(nullptr);
  gLogHandle = nullptr;
}

}  // namespace pallion::host
