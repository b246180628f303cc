#include "support/process_helpers.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

#include "foundation/unique_descriptor.h"
#include "platform/cpu_usage_monitor.h"
#include "platform/service_transactions.h"
#include "tests/helpers/child_process.h"
#include "tests/helpers/temporary_root.h"

// The linker's names for the bounds of a section.
extern "C" const pallion::CrashAnnotationRecord __start___crash_info;
extern "C" const pallion::CrashAnnotationRecord __stop___crash_info;

namespace pallion::test {

namespace {

// Runs `body` in a child and answers the report in its memory some time after a signal was about to
// end it.
std::string crashReportOf(const std::function<void()>& body) {
  static const UniqueDescriptor report(memfd_create("report", MFD_CLOEXEC));
  EXPECT_EQ(ftruncate(report.get(), 0), 0);
  EXPECT_TRUE(runInChild([&body] {
    std::signal(SIGABRT, [](int) {
      usleep(200000);
      const auto* text = reinterpret_cast<const char*>(crashAnnotation.message);
      _exit(pwrite(report.get(), text, std::strlen(text), 0) < 0 ? 1 : 0);
    });
    body();
    ADD_FAILURE() << "no crash";
  }));
  return readAll("/proc/self/fd/" + std::to_string(report.get()));
}

// The soft limit on processor time of this process, in seconds.
void limitTo(rlim_t seconds) {
  const rlimit limit{seconds, 5000};
  ASSERT_EQ(setrlimit(RLIMIT_CPU, &limit), 0);
}
rlim_t softLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_CPU, &limit);
  return limit.rlim_cur;
}

class CountingMonitor : public CPUUsageMonitor {
 public:
  CountingMonitor() { replace(this); }
  ~CountingMonitor() override { replace(nullptr); }
  int disable(pid_t process) override { return calls += process == getpid() ? 1 : 0, -1; }
  int setDefaults(pid_t process) override { return calls += process == getpid() ? 10 : 0, -1; }
  std::atomic<int> calls = 0;
};

}  // namespace

TEST(ProcessHelpers, OnlyTheOutermostAssertionReachesTheMonitor) {
  EXPECT_TRUE(runInChild([] {
    limitTo(1000);
    PLAssertHighResourceUsage();
    PLAssertHighResourceUsage();
    PLClearResourceAssertion();
    EXPECT_EQ(softLimit(), 5000U);
    PLClearResourceAssertion();
    EXPECT_EQ(softLimit(), 1000U);
    // A limit that is used up already is not put back: the kernel would end the process.
    limitTo(1);
    PLAssertHighResourceUsage();
    while (clock() < CLOCKS_PER_SEC + CLOCKS_PER_SEC / 10) continue;
    PLClearResourceAssertion();
    EXPECT_GT(softLimit(), 30U);
    EXPECT_LT(softLimit(), 100U);
  }));
  CountingMonitor monitor;
  PLAssertHighResourceUsage();
  std::vector<std::jthread> threads(4);
  for (std::jthread& thread : threads) {
    thread = std::jthread([] {
      for (int n = 0; n < 1000000; ++n) PLAssertHighResourceUsage();
      for (int n = 0; n < 1000000; ++n) PLClearResourceAssertion();
    });
  }
  threads.clear();
  EXPECT_EQ(monitor.calls, 1);
  PLClearResourceAssertion();
  EXPECT_EQ(monitor.calls, 11);
}

TEST(ProcessHelpers, TasksRunInOrderAndKeepTheirTransactionsOpen) {
  using namespace std::chrono_literals;
  std::vector<int> ran;
  {
    TaskQueue queue;
    for (int i = 0; i < 2; ++i) queue.suspend();
    for (int i = 3; i > 0; --i) {
      PLRunTransactionalTask(queue, [&ran, i] {
        if (ServiceTransactions::openTransactions() == i) ran.push_back(i);
      });
    }
    queue.resume();  // still suspended once
    EXPECT_FALSE(ServiceTransactions::waitUntilIdle(50ms));
    EXPECT_TRUE(ran.empty());
    const auto before = std::chrono::steady_clock::now();
    queue.resume();
    EXPECT_TRUE(ServiceTransactions::waitUntilIdle(20s));
    EXPECT_LT(std::chrono::steady_clock::now() - before, 10s);  // it is told, not timed out
    queue.suspend();
    queue.submit([&ran] { ran.push_back(0); });
  }
  EXPECT_EQ(ran, (std::vector<int>{3, 2, 1, 0})) << "the last one by the queue's end";
}

TEST(ProcessHelpers, AnUncaughtExceptionLeavesItsReport) {
  // The crash reporter finds the record by the name of its section.
  EXPECT_EQ(&__start___crash_info, &crashAnnotation);
  EXPECT_EQ(&__stop___crash_info - &__start___crash_info, 1);
  EXPECT_EQ(crashAnnotation.version, 5U);
  const std::string head = "** INTERNAL ERROR: Uncaught Exception **\nException: ";
  const struct {
    const char* thread;  // null for a thread that was given no name
    UncaughtException exception;
    std::string report;
  } rows[] = {
      {"worker", {"Oops", "bad thing", {"f", "g"}}, "<worker> Oops: bad thing\nStack:\nf\ng"},
      {"", {"Oops", std::nullopt, {}}, "<> Oops: \nStack:\n"},
      {nullptr, {std::nullopt, "bad thing", {"f"}}, "bad thing\nStack:\nf"}};
  for (const auto& row : rows) {
    const auto crash = [&row] {
      if (row.thread) pthread_setname_np(pthread_self(), row.thread);
      PLCrashOnException(row.exception);
    };
    EXPECT_EQ(crashReportOf(crash), head + row.report);
  }
  EXPECT_EQ(crashAnnotation.message, 0U);
  // The first of two reports is the only one.
  const auto twoThreads = [] {
    std::thread([] {
      const std::atomic_ref message(crashAnnotation.message);
      while (message.load() == 0) std::this_thread::yield();
      PLCrashOnException({"Second", std::nullopt, {}});
    }).detach();
    PLCrashOnException({"First", std::nullopt, {}});
  };
  EXPECT_EQ(crashReportOf(twoThreads), head + "First: \nStack:\n");
}

}  // namespace pallion::test
