#pragma once

#include <chrono>
#include <cstdio>
#include <sys/resource.h>

namespace pallion::bench {

inline double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// What every measuring program prints: "<wall seconds> <user seconds> <system seconds> <peak
// resident KiB>".
inline void printFigures(std::chrono::duration<double> wall, const rusage& usage) {
  std::printf("%.7f %.6f %.6f %ld\n", wall.count(), seconds(usage.ru_utime),
              seconds(usage.ru_stime), usage.ru_maxrss);
}

// Runs `work`, which answers whether it succeeded, and prints the figures of this process, the time
// being that of one of the `repetitions`. The program's exit status.
template <class Work>
int timed(int repetitions, const Work& work) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < repetitions; ++i) {
    if (!work()) return 1;
  }
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  printFigures(wall / repetitions, usage);
  return 0;
}

}  // namespace pallion::bench
