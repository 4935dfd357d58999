// Counts the bytes this test program holds through operator new, so that a test can tell
// whether memory comes back. Every allocation carries its size in a header in front of it.
// The library and the tests are linked statically into this program, so their allocations
// all come through here; the aligned forms of new are left to the runtime and not counted.
// ThreadSanitizer's runtime brings operator new of its own, which cannot be replaced: there
// nothing is counted and HeapIsCounted() says so.
#include <atomic>
#include <cstddef>  // std::max_align_t
#include <cstdlib>
#include <new>

#include "tests/reliability/ReliabilitySupport.h"

#if defined(__SANITIZE_THREAD__)
#define PENDREL_HEAP_COUNTED 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define PENDREL_HEAP_COUNTED 0
#endif
#endif
#ifndef PENDREL_HEAP_COUNTED
#define PENDREL_HEAP_COUNTED 1
#endif

namespace {

// Keeps what follows it aligned for every type that plain new serves.
constexpr std::size_t kHeader = alignof(std::max_align_t) > sizeof(std::size_t)
                                    ? alignof(std::max_align_t)
                                    : sizeof(std::size_t);

std::atomic<std::int64_t> g_bytesInUse{0};
std::atomic<std::int64_t> g_peakBytes{0};

void* Allocate(std::size_t size) noexcept {
  void* block = std::malloc(size + kHeader);
  if (block == nullptr) return nullptr;
  *static_cast<std::size_t*>(block) = size;
  const std::int64_t now =
      g_bytesInUse.fetch_add(static_cast<std::int64_t>(size), std::memory_order_relaxed) +
      static_cast<std::int64_t>(size);
  for (std::int64_t peak = g_peakBytes.load(std::memory_order_relaxed);
       now > peak && !g_peakBytes.compare_exchange_weak(peak, now, std::memory_order_relaxed);) {
  }
  return static_cast<char*>(block) + kHeader;
}

[[maybe_unused]] void Release(void* pointer) noexcept {
  if (pointer == nullptr) return;
  void* block = static_cast<char*>(pointer) - kHeader;
  g_bytesInUse.fetch_sub(static_cast<std::int64_t>(*static_cast<std::size_t*>(block)),
                         std::memory_order_relaxed);
  std::free(block);
}

[[maybe_unused]] void* AllocateOrThrow(std::size_t size) {
  for (;;) {
    if (void* pointer = Allocate(size)) return pointer;
    const std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) throw std::bad_alloc();
    handler();
  }
}

}  // namespace

#if PENDREL_HEAP_COUNTED
void* operator new(std::size_t size) { return AllocateOrThrow(size); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void operator delete(void* pointer) noexcept { Release(pointer); }
void operator delete[](void* pointer) noexcept { Release(pointer); }
void operator delete(void* pointer, std::size_t) noexcept { Release(pointer); }
void operator delete[](void* pointer, std::size_t) noexcept { Release(pointer); }
void operator delete(void* pointer, const std::nothrow_t&) noexcept { Release(pointer); }
void operator delete[](void* pointer, const std::nothrow_t&) noexcept { Release(pointer); }
#endif

namespace pendrel_reliability {

bool HeapIsCounted() { return PENDREL_HEAP_COUNTED != 0; }

std::int64_t HeapBytesInUse() { return g_bytesInUse.load(std::memory_order_relaxed); }

std::int64_t HeapPeakBytes() { return g_peakBytes.load(std::memory_order_relaxed); }

void ResetHeapPeak() { g_peakBytes.store(HeapBytesInUse(), std::memory_order_relaxed); }

}  // namespace pendrel_reliability
