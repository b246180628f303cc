#include "programs/palliontool/failure.h"

#include <filesystem>
#include <mutex>
#include <system_error>
#include <vector>

#include "foundation/format.h"
#include "platform/product_log.h"
#include "programs/common/console.h"
#include "programs/common/exit_status.h"

namespace pallion::tool {

namespace {

// Hears every line: what is missing may be a debug line only.
class RememberedLog : public LogHandle {
 public:
  RememberedLog() : LogHandle(kLogDebug) {}
  void write(int level, std::string_view, std::string_view message) override {
    const std::lock_guard lock(mutex_);
    if (level == kLogError) {
      errors_.emplace_back(message);
    } else {
      other_ = message;
    }
  }
  std::vector<std::string> takeErrors() {
    const std::lock_guard lock(mutex_);
    other_.clear();
    return std::exchange(errors_, {});
  }
  std::string takeReason() {
    const std::string other = other_;
    const std::vector<std::string> errors = takeErrors();
    // The first tells the cause, later ones what became of it.
    return errors.empty() ? other : errors.front();
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> errors_;
  std::string other_;  // the latest line of another level
};

RememberedLog& rememberedLog() {
  static RememberedLog log;
  return log;
}

}  // namespace

void listenToLog() { gLogHandle = &rememberedLog(); }

int fail(const URL& subject, const Error& error, const std::string& cause) {
  std::string reason = rememberedLog().takeReason();
  if (error) {
    reason = error.localizedDescription();
    if (reason.empty()) reason = description(error);
  }
  const std::string path = subject.fileSystemRepresentation();
  if (reason.find(path) == std::string::npos) reason = path + ": " + reason;
  if (reason.find(cause) == std::string::npos) reason += ": " + cause;
  complain(reason);
  return kExitFailure;
}

bool tellLoggedErrors() {
  const std::vector<std::string> errors = rememberedLog().takeErrors();
  for (const std::string& line : errors) complain(line);
  return !errors.empty();
}

URL location(const std::string& path) {
  if (path.starts_with('/')) return URL::fileURL(path);
  // Asked once: by the time of the first path the program has entered its root.
  static const std::string directory = [] {
    std::error_code error;
    return std::filesystem::current_path(error).string();
  }();
  // Without a working directory there is no such item either.
  if (directory.empty()) return URL::fileURL(path);
  return URL::fileURL(directory == "/" ? "/" + path : directory + "/" + path);
}

URL directoryLocation(const std::string& path) {
  return URL::fileURL(location(path).path(), URL::Kind::kDirectory);
}

}  // namespace pallion::tool
