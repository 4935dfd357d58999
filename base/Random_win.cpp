#include <windows.h>
// After windows.h, which it needs.
#include <bcrypt.h>  // BCryptGenRandom

#include <random>

#include "base/Random.h"

namespace Pendrel::base {

std::uint64_t RandomBits() {
  std::uint64_t bits = 0;
  const NTSTATUS status = ::BCryptGenRandom(nullptr, reinterpret_cast<PUCHAR>(&bits), sizeof(bits),
                                            BCRYPT_USE_SYSTEM_PREFERRED_RNG);
  if (status >= 0) return bits;  // NT_SUCCESS
  std::random_device source;
  return (std::uint64_t{source()} << 32) ^ source();
}

}  // namespace Pendrel::base
