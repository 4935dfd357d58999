#include <sys/random.h>  // getrandom

#include <cerrno>
#include <cstddef>
#include <random>

#include "base/Random.h"

namespace Pendrel::base {

std::uint64_t RandomBits() {
  std::uint64_t bits = 0;
  auto* const bytes = reinterpret_cast<unsigned char*>(&bits);
  std::size_t got = 0;
  while (got < sizeof(bits)) {
    // Blocks only until the kernel's pool has been seeded once after boot.
    const ssize_t n = ::getrandom(bytes + got, sizeof(bits) - got, 0);
    if (n > 0) {
      got += static_cast<std::size_t>(n);
    } else if (n < 0 && errno != EINTR) {
      // ENOSYS on a kernel older than 3.17.
      std::random_device source;
      return (std::uint64_t{source()} << 32) ^ source();
    }
  }
  return bits;
}

}  // namespace Pendrel::base
