#include "tests/helpers/allocation_meter/allocation_meter.h"

#include <atomic>
#include <malloc.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define PALLION_SANITIZED_ALLOCATOR
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PALLION_SANITIZED_ALLOCATOR
#endif

namespace pallion::test {

namespace {

std::atomic<bool> gCounting{false};
std::atomic<int64_t> gLive{0};
std::atomic<int64_t> gPeak{0};

void allocated(size_t size) {
  if (!gCounting.load(std::memory_order_relaxed)) return;
  const int64_t live = gLive.fetch_add(static_cast<int64_t>(size), std::memory_order_relaxed) +
                       static_cast<int64_t>(size);
  if (live > gPeak.load(std::memory_order_relaxed)) gPeak.store(live, std::memory_order_relaxed);
}

void released(size_t size) {
  if (!gCounting.load(std::memory_order_relaxed)) return;
  gLive.fetch_sub(static_cast<int64_t>(size), std::memory_order_relaxed);
}

}  // namespace

AllocationMeter::AllocationMeter() {
  gLive = gPeak = 0;
  gCounting = true;
}

AllocationMeter::~AllocationMeter() { gCounting = false; }

size_t AllocationMeter::peak() const { return static_cast<size_t>(gPeak.load()); }

}  // namespace pallion::test

#ifdef PALLION_SANITIZED_ALLOCATOR

extern "C" {
size_t __sanitizer_get_allocated_size(const volatile void* pointer);
int __sanitizer_install_malloc_and_free_hooks(void (*allocated)(const volatile void*, size_t),
                                              void (*released)(const volatile void*));
}

[[maybe_unused]] static const int kInstalled = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, size_t size) { pallion::test::allocated(size); },
    [](const volatile void* pointer) {
      if (pointer) pallion::test::released(__sanitizer_get_allocated_size(pointer));
    });

#else

// In front of the C library's own, which stay reachable by their second names.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void __libc_free(void* pointer);

#define PALLION_INTERPOSED __attribute__((visibility("default"), used))

static void* counted(void* pointer) {
  pallion::test::allocated(malloc_usable_size(pointer));
  return pointer;
}
PALLION_INTERPOSED void* malloc(size_t size) { return counted(__libc_malloc(size)); }
PALLION_INTERPOSED void* calloc(size_t count, size_t size) {
  return counted(__libc_calloc(count, size));
}
PALLION_INTERPOSED void* realloc(void* pointer, size_t size) {
  const size_t before = malloc_usable_size(pointer);
  void* const after = __libc_realloc(pointer, size);
  if (after || size == 0) pallion::test::released(before);
  return counted(after);
}
PALLION_INTERPOSED void free(void* pointer) {
  pallion::test::released(malloc_usable_size(pointer));
  __libc_free(pointer);
}
}

#endif
