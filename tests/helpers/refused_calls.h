#pragma once

#include <initializer_list>

namespace pallion::test {

// From here on every system call of these numbers (SYS_...) answers `error` instead of being made,
// in this thread and those that it starts; with 0 it claims success and does nothing. Can't be
// undone: for forked children (see runInMountNamespace). False when the kernel has no call filters.
[[nodiscard]] bool refuseCalls(std::initializer_list<long> numbers, int error);

}  // namespace pallion::test
