#include "fuzz/fuzz_target.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "platform/log_line.h"
#include "platform/migration_log.h"
#include "platform/product_log.h"

namespace pallion::fuzz {

namespace {

constexpr timespec kNoTime{};

void checkLine(const LogLine& line) {
  const std::string text = formatLogLine(LogFormat::kText, line);
  require(text.find('\n') == text.size() - 1, "a message is one line of the log");
}

// Take every line of every level, as the log files would.
class ProductLog final : public LogHandle {
 public:
  ProductLog() : LogHandle(kLogDebug) {}
  void write(int level, std::string_view function, std::string_view message) override {
    checkLine({kNoTime, level, nullptr, nullptr, 0, function, message});
  }
};

class HostLog final : public MigrationLogSink {
 public:
  void write(const MigrationLogRecord& record) override {
    checkLine({kNoTime, record.level, record.category, record.file, record.line, record.function,
               record.message});
  }
};

}  // namespace

void require(bool holds, const char* promise) {
  if (holds) return;
  std::fprintf(stderr, "broken: %s\n", promise);
  std::abort();
}

void writeFile(const std::string& path, std::string_view bytes) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const bool written = descriptor >= 0 && ::write(descriptor, bytes.data(), bytes.size()) ==
                                              static_cast<ssize_t>(bytes.size());
  if (descriptor >= 0) ::close(descriptor);
  require(written, "there is room for the input's files");
}

}  // namespace pallion::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static pallion::fuzz::ProductLog productLog;
  static pallion::fuzz::HostLog hostLog;
  pallion::gLogHandle = &productLog;
  pallion::MigrationLogSink::replace(&hostLog);
  pallion::fuzz::runInput({reinterpret_cast<const char*>(data), size});
  return 0;
}
