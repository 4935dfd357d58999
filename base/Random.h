// The library's private random source: boundaries and pipe names draw from it, never from
// the C library's rand(), whose sequence belongs to the host.
#pragma once

#include <cstdint>

namespace Pendrel::base {

// 64 random bits from a generator seeded once from std::random_device. Safe to call from
// several threads at once.
std::uint64_t RandomBits();

}  // namespace Pendrel::base
