// The library's private random source: boundaries and pipe names draw from it, never from
// the C library's rand(), whose sequence belongs to the host, nor from a generator in this
// process, whose output would tell what comes next. One implementation per platform
// (Random_posix.cpp: getrandom; Random_win.cpp: BCryptGenRandom).
#pragma once

#include <cstdint>

namespace Pendrel::base {

// 64 random bits from the operating system's generator, fresh on every call (a forked
// process does not repeat its parent's). Never fails: should the system's generator be
// unusable, std::random_device is asked instead. Any thread.
std::uint64_t RandomBits();

}  // namespace Pendrel::base
