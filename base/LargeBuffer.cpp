#include "base/LargeBuffer.h"

namespace Pendrel::base {

void ReserveLarge(std::string& text, std::size_t capacity) {
  if (capacity <= text.capacity()) return;
  text.reserve(capacity);
  // Only the block just made is advised, and only its part that the reallocation has not
  // written (the old contents were copied into its start).
  if (text.capacity() >= kLargeBufferThreshold) {
    AdviseLargeBuffer(text.data() + text.size(), text.capacity() - text.size());
  }
}

}  // namespace Pendrel::base
