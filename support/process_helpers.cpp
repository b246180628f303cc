#include "support/process_helpers.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <unistd.h>
#include <utility>

#include "platform/cpu_usage_monitor.h"
#include "platform/service_transactions.h"

namespace pallion {

__attribute__((section("__crash_info"), used))
CrashAnnotationRecord crashAnnotation = {5, 0, 0, {}};

namespace {

std::atomic<int32_t> resourceAssertions = 0;

// The name that was given to the current thread. A thread that got none bears the one of its
// program, at most 15 bytes of it.
std::optional<std::string> currentThreadName() {
  char name[16] = {};
  if (pthread_getname_np(pthread_self(), name, sizeof name) != 0) return std::nullopt;
  if (std::strncmp(name, program_invocation_short_name, sizeof name - 1) == 0) return std::nullopt;
  return std::string(name);
}

std::string crashReport(const UncaughtException& exception) {
  std::string report = "** INTERNAL ERROR: Uncaught Exception **\nException: ";
  if (const std::optional<std::string> thread = currentThreadName()) report += "<" + *thread + "> ";
  if (exception.name) report += *exception.name + ": ";
  if (exception.reason) report += *exception.reason;
  report += "\nStack:\n";
  for (size_t i = 0; i < exception.callStackSymbols.size(); ++i) {
    if (i != 0) report += '\n';
    report += exception.callStackSymbols[i];
  }
  return report;
}

}  // namespace

void PLAssertHighResourceUsage() {
  if (resourceAssertions.fetch_add(1) + 1 == 1) CPUUsageMonitor::current().disable(getpid());
}

void PLClearResourceAssertion() {
  if (resourceAssertions.fetch_sub(1) - 1 == 0) CPUUsageMonitor::current().setDefaults(getpid());
}

void PLRunTransactionalTask(TaskQueue& queue, std::function<void()> task) {
  ServiceTransactions::beginTransaction();
  queue.submit([task = std::move(task)] {
    task();
    ServiceTransactions::endTransaction();
  });
}

void PLCrashOnException(const UncaughtException& exception) {
  const std::string report = crashReport(exception);
  static std::mutex oneReport;
  oneReport.lock();  // never unlocked: the record is to hold exactly one report
  // In one store, since a reader may look at any moment.
  std::atomic_ref(crashAnnotation.message)
      .store(reinterpret_cast<uintptr_t>(strdup(report.c_str())), std::memory_order_release);
  std::abort();
}

}  // namespace pallion
