#include "base/LargeBuffer.h"

namespace Pendrel::base {

void ReserveLarge(std::string& text, std::size_t capacity) {
  if (capacity <= text.capacity()) return;
  if (capacity < kLargeBufferThreshold) {
    text.reserve(capacity);
    return;
  }
  // The new block is advised before the old contents are copied into it, so that they too
  // land on huge pages.
  std::string fresh;
  fresh.reserve(capacity);
  AdviseLargeBuffer(fresh.data(), fresh.capacity());
  fresh.append(text);
  text.swap(fresh);
}

}  // namespace Pendrel::base
