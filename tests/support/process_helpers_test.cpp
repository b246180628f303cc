#include "support/process_helpers.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <latch>
#include <memory>
#include <pthread.h>
#include <string>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "platform/cpu_usage_monitor.h"
#include "platform/service_transactions.h"

// The linker's names for the bounds of a section.
extern "C" const pallion::CrashAnnotationRecord __start___crash_info;
extern "C" const pallion::CrashAnnotationRecord __stop___crash_info;

namespace pallion::test {

namespace {

bool readMemory(pid_t process, uint64_t address, void* into, size_t count) {
  const iovec local{into, count};
  const iovec remote{reinterpret_cast<void*>(address), count};
  return process_vm_readv(process, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(count);
}

struct Crash {
  int signal = 0;  // 0 when it did not crash
  CrashAnnotationRecord record{};
  std::string report;
};

// Runs `body` in a forked child and looks at its memory when a signal is about to end it.
Crash crashOf(const std::function<void()>& body) {
  Crash crash;
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    alarm(20);
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    body();
    _exit(0);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) return crash;
  crash.signal = WSTOPSIG(status);
  if (readMemory(child, reinterpret_cast<uint64_t>(&crashAnnotation), &crash.record,
                 sizeof crash.record)) {
    char c = 0;
    for (uint64_t at = crash.record.message; readMemory(child, at, &c, 1) && c != 0; ++at)
      crash.report += c;
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  return crash;
}

// The soft limit on processor time of this process, in seconds.
rlim_t softLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_CPU, &limit);
  return limit.rlim_cur;
}

// Exit status of a forked child that runs `body`.
int runForked(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) _exit(body());
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

class CountingMonitor : public CPUUsageMonitor {
 public:
  CountingMonitor() { replace(this); }
  ~CountingMonitor() override { replace(nullptr); }
  int disable(pid_t process) override {
    disabled += process == getpid();
    return -1;
  }
  int setDefaults(pid_t process) override {
    restored += process == getpid();
    return -1;
  }
  std::atomic<int> disabled = 0;
  std::atomic<int> restored = 0;
};

}  // namespace

TEST(ProcessHelpers, OnlyTheOutermostAssertionReachesTheMonitor) {
  // Answers the number of the step that went wrong.
  EXPECT_EQ(runForked([] {
              for (const rlim_t soft : {rlim_t{1000}, rlim_t{2000}}) {
                const rlimit limited{soft, 5000};
                if (setrlimit(RLIMIT_CPU, &limited) != 0) return 1;
                PLAssertHighResourceUsage();
                if (softLimit() != 5000) return 2;
                PLAssertHighResourceUsage();
                PLClearResourceAssertion();
                if (softLimit() != 5000) return 3;
                PLClearResourceAssertion();
                if (softLimit() != soft) return 4;
              }
              return 0;
            }),
            0);
  // A limit that is used up already is not put back as it was: the kernel would end the process.
  EXPECT_EQ(runForked([] {
              const rlimit limited{1, 5000};
              if (setrlimit(RLIMIT_CPU, &limited) != 0) return 1;
              PLAssertHighResourceUsage();
              while (clock() < CLOCKS_PER_SEC + CLOCKS_PER_SEC / 10) {
              }
              PLClearResourceAssertion();
              return softLimit() > 30 && softLimit() < 100 ? 0 : 2;
            }),
            0);
}

TEST(ProcessHelpers, AssertionsOfManyThreadsAreCounted) {
  CountingMonitor monitor;
  PLAssertHighResourceUsage();
  std::latch start(4);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&start] {
      start.arrive_and_wait();
      for (int n = 0; n < 1000000; ++n) PLAssertHighResourceUsage();
      for (int n = 0; n < 1000000; ++n) PLClearResourceAssertion();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(monitor.disabled, 1);
  EXPECT_EQ(monitor.restored, 0);
  PLClearResourceAssertion();
  EXPECT_EQ(monitor.disabled, 1);
  EXPECT_EQ(monitor.restored, 1);
}

TEST(ProcessHelpers, ATaskKeepsItsTransactionOpenUntilItRan) {
  using namespace std::chrono_literals;
  TaskQueue queue;
  queue.suspend();
  std::atomic<int> openInTask = -1;
  auto resource = std::make_shared<int>(1);
  const std::weak_ptr<int> held = resource;
  PLRunTransactionalTask(queue, [&openInTask, resource = std::move(resource)] {
    openInTask = ServiceTransactions::openTransactions() + *resource - 1;
  });
  EXPECT_FALSE(ServiceTransactions::waitUntilIdle(50ms));
  EXPECT_EQ(ServiceTransactions::openTransactions(), 1);
  EXPECT_EQ(openInTask, -1);
  EXPECT_FALSE(held.expired());
  const auto before = std::chrono::steady_clock::now();
  queue.resume();
  EXPECT_TRUE(ServiceTransactions::waitUntilIdle(20s));
  EXPECT_LT(std::chrono::steady_clock::now() - before, 10s);  // it is told, not timed out
  EXPECT_EQ(openInTask, 1);
}

TEST(ProcessHelpers, AQueueRunsItsTasksInOrderAndToTheEnd) {
  std::vector<int> ran;
  {
    TaskQueue queue;
    queue.suspend();
    queue.suspend();
    for (int i = 0; i < 3; ++i) queue.submit([&ran, i] { ran.push_back(i); });
    queue.resume();  // still suspended once
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_TRUE(ran.empty());
  }
  EXPECT_EQ(ran, (std::vector<int>{0, 1, 2}));
}

TEST(ProcessHelpers, AnUncaughtExceptionLeavesItsReport) {
  EXPECT_EQ(crashAnnotation.version, 5U);
  EXPECT_EQ(crashAnnotation.message, 0U);
  const std::string head = "** INTERNAL ERROR: Uncaught Exception **\nException: ";
  struct Row {
    const char* thread;  // null for a thread that was given no name
    UncaughtException exception;
    std::string report;
  };
  const Row rows[] = {
      {"worker", {"Oops", "bad thing", {"f", "g"}}, "<worker> Oops: bad thing\nStack:\nf\ng"},
      {nullptr, {"Oops", "bad thing", {"f"}}, "Oops: bad thing\nStack:\nf"},
      {"", {"Oops", std::nullopt, {}}, "<> Oops: \nStack:\n"},
      {nullptr, {std::nullopt, "bad thing", {}}, "bad thing\nStack:\n"},
      {nullptr, {std::nullopt, std::nullopt, {}}, "\nStack:\n"}};
  for (const Row& row : rows) {
    const Crash crash = crashOf([&] {
      if (row.thread) pthread_setname_np(pthread_self(), row.thread);
      PLCrashOnException(row.exception);
    });
    EXPECT_EQ(crash.signal, SIGABRT);
    EXPECT_EQ(crash.report, head + row.report);
    EXPECT_EQ(crash.record.version, 5U);
    EXPECT_EQ(crash.record.reserved, 0U);
    for (const uint64_t word : crash.record.unused) EXPECT_EQ(word, 0U);
  }
  EXPECT_EQ(crashAnnotation.message, 0U);
}

TEST(ProcessHelpers, TheFirstOfTwoReportsIsTheOnlyOne) {
  EXPECT_EQ(runForked([] {
              static std::atomic<int> aborts = 0;
              struct sigaction action {};
              action.sa_handler = [](int) {
                if (++aborts != 1) _exit(3);
                const uint64_t first = crashAnnotation.message;
                usleep(200000);  // time for the other thread
                _exit(crashAnnotation.message == first ? 0 : 2);
              };
              sigaction(SIGABRT, &action, nullptr);
              std::thread([] {
                const std::atomic_ref message(crashAnnotation.message);
                while (message.load() == 0) std::this_thread::yield();
                PLCrashOnException({"Second", std::nullopt, {}});
              }).detach();
              PLCrashOnException({"First", std::nullopt, {}});
              return 4;
            }),
            0);
}

// The crash reporter finds the record by the name of its section.
TEST(ProcessHelpers, TheRecordStandsInASectionOfItsOwn) {
  EXPECT_EQ(&__start___crash_info, &crashAnnotation);
  EXPECT_EQ(&__stop___crash_info - &__start___crash_info, 1);
}

}  // namespace pallion::test
