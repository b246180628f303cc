#include "platform/cpu_usage_monitor.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <mutex>
#include <sys/resource.h>

#include "platform/replaceable.h"

namespace pallion {

namespace {

// Processor time of a process in whole seconds, rounded up.
rlim_t usedSeconds(pid_t process) {
  clockid_t clock = 0;
  timespec used{};
  if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &used) != 0) return 0;
  return static_cast<rlim_t>(used.tv_sec) + 1;
}

class SystemMonitor : public CPUUsageMonitor {
 public:
  int disable(pid_t process) override {
    const std::lock_guard lock(mutex_);
    rlimit limit{};
    if (prlimit(process, RLIMIT_CPU, nullptr, &limit) != 0) return -1;
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    if (prlimit(process, RLIMIT_CPU, &limit, nullptr) != 0) return -1;
    raised_.try_emplace(process, before);
    return 0;
  }

  int setDefaults(pid_t process) override {
    const std::lock_guard lock(mutex_);
    const auto raised = raised_.find(process);
    if (raised == raised_.end()) return 0;
    constexpr rlim_t kGrace = 60;
    rlimit limit{};
    if (prlimit(process, RLIMIT_CPU, nullptr, &limit) != 0) return -1;
    limit.rlim_cur = raised->second;
    if (const rlim_t used = usedSeconds(process); limit.rlim_cur <= used)
      limit.rlim_cur = used + kGrace;
    limit.rlim_cur = std::min(limit.rlim_cur, limit.rlim_max);
    if (prlimit(process, RLIMIT_CPU, &limit, nullptr) != 0) return -1;
    raised_.erase(raised);
    return 0;
  }

 private:
  std::mutex mutex_;
  std::map<pid_t, rlim_t> raised_;  // the soft limit before
};

using Seam = Replaceable<CPUUsageMonitor, SystemMonitor>;

}  // namespace

CPUUsageMonitor& CPUUsageMonitor::current() { return Seam::current(); }
CPUUsageMonitor* CPUUsageMonitor::replace(CPUUsageMonitor* replacement) {
  return Seam::replace(replacement);
}
CPUUsageMonitor& CPUUsageMonitor::system() { return Seam::system(); }

}  // namespace pallion
