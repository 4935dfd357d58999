#include "tests/support/PatternBytes.h"

#include <cstdint>

namespace pendrel_test {

std::string PatternBytes(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  std::uint32_t state = 0x9E3779B9u * (seed + 1);
  for (char& c : bytes) {
    state = state * 1664525u + 1013904223u;
    c = static_cast<char>(state >> 24);
  }
  return bytes;
}

}  // namespace pendrel_test
