#pragma once

#include <cstdint>
#include <initializer_list>

namespace pallion::test {

// Calls with any of these flags in the argument of that index.
struct CallsWith {
  uint32_t argument = 0;
  uint32_t flags = 0;  // 0: all calls
};

// From here on every system call of these numbers (SYS_...) answers `error` instead of being made,
// in this thread and those that it starts; with 0 it claims success and does nothing. Can't be
// undone: for forked children (see runInChild). False when the kernel has no call filters.
[[nodiscard]] bool refuseCalls(std::initializer_list<long> numbers, int error,
                               const CallsWith& which = {});

}  // namespace pallion::test
