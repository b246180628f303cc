#pragma once

#include <cstddef>
#include <cstdint>

namespace pallion::test {

// Counts what the process has allocated with malloc, calloc and realloc (operator new and the
// libraries in C included; stacks, mappings and over-aligned memory not). One meter at a time. In
// sanitized programs the sizes are those asked for, otherwise those that the allocator gave.
class AllocationMeter {
 public:
  AllocationMeter();
  AllocationMeter(const AllocationMeter&) = delete;
  AllocationMeter& operator=(const AllocationMeter&) = delete;
  ~AllocationMeter();

  // The most bytes that were in use at one time since the meter was made, above what was in use
  // then.
  [[nodiscard]] size_t peak() const;
};

}  // namespace pallion::test
