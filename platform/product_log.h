#pragma once

#include <string_view>
#include <type_traits>

#include "foundation/format.h"

// The product's log: lines with a level and the full name of the operation that writes them.

namespace pallion {

inline constexpr int kLogError = 3;
inline constexpr int kLogNotice = 5;
inline constexpr int kLogDebug = 7;

// Where product log lines go, and up to which level. Called from any thread; must not throw.
class LogHandle {
 public:
  explicit LogHandle(int level) : level_(level) {}
  LogHandle(const LogHandle&) = delete;
  LogHandle& operator=(const LogHandle&) = delete;
  virtual ~LogHandle() = default;
  [[nodiscard]] int level() const { return level_; }
  virtual void write(int level, std::string_view function, std::string_view message) = 0;

 private:
  int level_;
};

// The process's handle, or null: then lines of the levels 3 and 5 go to stderr. Set before other
// threads log; the handle must outlive its use. This is the seam at which tests listen.
extern LogHandle* gLogHandle;

// Levels 3 and 5 are written when there is no handle or its level is at least theirs, level 7 only
// for a handle whose level is at least 7.
inline bool logWrites(int level) {
  if (!gLogHandle) return level < kLogDebug;
  return gLogHandle->level() >= level;
}

// Hands a finished message to the handle, or to stderr.
void logMessage(int level, std::string_view function, std::string_view message);

// Formats and writes a line; formats nothing when the level filters it out. `function` is the
// operation's full name, such as "-[PLFileManager removeItemAtURL:error:]".
template <class... Args>
void LogWrite(int level, const char* function, FormatString<std::type_identity_t<Args>...> text,
              const Args&... args) {
  if (logWrites(level)) logMessage(level, function, format(text, args...));
}

}  // namespace pallion
