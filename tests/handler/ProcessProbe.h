// Whether a process still exists, seen from outside: how the pool tests check that no handler
// process is left behind. One implementation per platform (ProcessProbe_posix.cpp,
// ProcessProbe_win.cpp).
#pragma once

#include <cstdint>

namespace pendrel_test {

// Whether process `pid` exists and has not ended (Linux: kill(pid, 0) finds it, so an
// uncollected zombie counts as existing; Windows: OpenProcess finds it still running).
bool ProcessExists(std::uint32_t pid);

}  // namespace pendrel_test
