#include "programs/migration_host/host_logs.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include "platform/log_file.h"
#include "programs/common/console.h"

namespace pallion::host {

namespace {

constexpr const char* kHostLog = "/private/var/mobile/Library/Logs/Shiftwell/migration.log";

int levelFor(const Options& options) {
  if (options.verbose) return kLogDebug;
  return options.quiet ? kLogError : kLogNotice;
}

void sendToJournal(const Journal& journal, const LogLine& line, const std::string& container) {
  const std::string priority = std::to_string(line.level);  // the journal's levels are the same
  const std::string number = std::to_string(line.line);
  std::vector<JournalField> fields = {{"MESSAGE", line.message},
                                      {"PRIORITY", priority},
                                      {"SYSLOG_IDENTIFIER", PALLION_PROGRAM},
                                      {"PALLION_LOG", logOf(line)},
                                      {"CODE_FUNC", line.function}};
  if (line.file) fields.insert(fields.end(), {{"CODE_FILE", line.file}, {"CODE_LINE", number}});
  if (!container.empty()) fields.push_back({"PALLION_CONTAINER", container});
  journal.send(fields);
}

// One of the two logs' way to its file and to the journal.
class LogWriter {
 public:
  LogWriter(LogFormat format, int descriptor, const std::string& path, const Journal* journal,
            LogListener* listener)
      : format_(format),
        journal_(journal && journal->isOpen() ? journal : nullptr),
        listener_(listener) {
    if (descriptor >= 0) {
      file_ = std::make_unique<LogFile>(descriptor);
    } else {
      file_ = std::make_unique<LogFile>(path);
    }
  }

  void write(const LogLine& line) {
    if (journal_) {
      sendToJournal(*journal_, line, listener_ ? listener_->containerInHand() : std::string());
    }
    tellFile(line);
    if (listener_) listener_->lineLogged(line);
  }

 private:
  void tellFile(const LogLine& line) {
    const int error = file_->write(formatLogLine(format_, line));
    if (error == 0 || failed_.exchange(true)) return;
    complain("warning: log lines are lost: " + (file_->path().empty() ? "log" : file_->path()),
             error);
  }

  const LogFormat format_;
  const Journal* const journal_;
  LogListener* const listener_;
  std::unique_ptr<LogFile> file_;
  std::atomic<bool> failed_{false};
};

}  // namespace

class HostLogs::ProductHandle : public LogHandle {
 public:
  ProductHandle(const Options& options, int descriptor, const Journal* journal,
                LogListener* listener)
      : LogHandle(levelFor(options)),
        writer_(options.logFormat, descriptor, std::string(kProductLogFolder) + "pallion.log",
                journal, listener) {}
  void write(int level, std::string_view function, std::string_view message) override {
    writer_.write({currentTime(), level, nullptr, nullptr, 0, function, message});
  }

 private:
  LogWriter writer_;
};

class HostLogs::HostSink : public MigrationLogSink {
 public:
  HostSink(const Options& options, int descriptor, const Journal* journal, LogListener* listener)
      : level_(levelFor(options)),
        writer_(options.logFormat, descriptor, kHostLog, journal, listener) {}
  [[nodiscard]] int level() const override { return level_; }
  void write(const MigrationLogRecord& record) override {
    writer_.write({currentTime(), record.level, record.category, record.file, record.line,
                   record.function, record.message});
  }

 private:
  const int level_;
  LogWriter writer_;
};

const char* logOf(const LogLine& line) { return line.category ? "host" : "product"; }

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

HostLogs::HostLogs(const Options& options, int descriptor, const Journal* journal,
                   LogListener* listener)
    : product_(std::make_unique<ProductHandle>(options, descriptor, journal, listener)),
      host_(std::make_unique<HostSink>(options, descriptor, journal, listener)) {
  gLogHandle = product_.get();
  MigrationLogSink::replace(host_.get());
}

HostLogs::~HostLogs() {
  MigrationLogSink::replace(nullptr);
  gLogHandle = nullptr;
}

}  // namespace pallion::host
