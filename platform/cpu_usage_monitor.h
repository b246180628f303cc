#pragma once

#include <sys/types.h>

namespace pallion {

// The monitor of a process's use of processor time, here its limit (RLIMIT_CPU, soft).
class CPUUsageMonitor {
 public:
  CPUUsageMonitor() = default;
  CPUUsageMonitor(const CPUUsageMonitor&) = delete;
  CPUUsageMonitor& operator=(const CPUUsageMonitor&) = delete;
  virtual ~CPUUsageMonitor() = default;

  // Raises the limit of the process to the most that it may have. 0, or -1 with errno set.
  virtual int disable(pid_t process) = 0;
  // Puts the limit back that stood when it was last raised; where the process has used that up
  // meanwhile, what it has used and a minute, since the kernel would end it at once. Without effect
  // when it was not raised. 0, or -1 with errno set.
  virtual int setDefaults(pid_t process) = 0;

  // The seam; see RecursiveRemove.
  static CPUUsageMonitor& current();
  static CPUUsageMonitor* replace(CPUUsageMonitor* replacement);
  static CPUUsageMonitor& system();
};

}  // namespace pallion
