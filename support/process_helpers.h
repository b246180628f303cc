#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "foundation/export.h"
#include "platform/task_queue.h"

// Facilities that concern the process as a whole. Any thread may call any of them.

namespace pallion {

// Counted assertion that the process is about to use much processor time: the first one switches
// the CPU-usage monitor off for this process, the last clear puts its defaults back. Clears must be
// balanced by assertions. What the platform answers is ignored.
PL_EXPORT void PLAssertHighResourceUsage();
PL_EXPORT void PLClearResourceAssertion();

// Opens a transaction, which marks the process as busy, has the queue run the task, and closes the
// transaction after it. Returns at once.
PL_EXPORT void PLRunTransactionalTask(TaskQueue& queue, std::function<void()> task);

// An exception that nobody caught.
struct UncaughtException {
  std::optional<std::string> name;
  std::optional<std::string> reason;
  std::vector<std::string> callStackSymbols;
};

// Ends the process (SIGABRT) with a report that the crash reporter finds in crashAnnotation. The
// first of several threads wins.
[[noreturn]] PL_EXPORT void PLCrashOnException(const UncaughtException& exception);

// What the crash reporter reads from the memory of a process that has crashed; stands in the ELF
// section "__crash_info".
struct CrashAnnotationRecord {
  uint32_t version;
  uint32_t reserved;
  uint64_t message;  // address of a NUL-terminated text; 0 for none
  uint64_t unused[6];
};
static_assert(sizeof(CrashAnnotationRecord) == 64);
PL_EXPORT extern CrashAnnotationRecord crashAnnotation;

}  // namespace pallion
