#include "base/LargeBuffer.h"

namespace Pendrel::base {

// Windows commits large allocations of the C runtime straight from VirtualAlloc in whole
// pages; large pages there need a privilege that a host is not given, so there is nothing
// to advise.
void AdviseLargeBuffer(void* data, std::size_t size) noexcept {
  static_cast<void>(data);
  static_cast<void>(size);
}

}  // namespace Pendrel::base
