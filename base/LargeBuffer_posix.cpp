#include <sys/mman.h>  // madvise

#include <cstdint>  // std::uintptr_t

#include "base/LargeBuffer.h"

namespace Pendrel::base {

void AdviseLargeBuffer(void* data, std::size_t size) noexcept {
#ifdef MADV_HUGEPAGE
  if (size < kLargeBufferThreshold) return;
  // Only whole huge pages inside the block can be huge; the advice covers those and nothing
  // of a neighbour's memory, wherever the allocator took the block from.
  constexpr std::uintptr_t kHugePage = kLargeBufferThreshold;
  const auto first = reinterpret_cast<std::uintptr_t>(data);
  const std::uintptr_t begin = (first + kHugePage - 1) & ~(kHugePage - 1);
  const std::uintptr_t end = (first + size) & ~(kHugePage - 1);
  if (end <= begin) return;
  // EINVAL where the kernel has no transparent huge pages: nothing to do then.
  ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
  static_cast<void>(data);
  static_cast<void>(size);
#endif
}

}  // namespace Pendrel::base
