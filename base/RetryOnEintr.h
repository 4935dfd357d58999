// The one helper that repeats a POSIX call interrupted by a signal (EINTR).
//
// Thread rules: reads errno, which is per thread; any thread.
#pragma once

#include <cerrno>

namespace Pendrel::base {

// Calls `call` until it returns something other than -1 or fails with an error other than
// EINTR, and returns its last result; errno then still holds that call's error. `call` is
// evaluated afresh each time, so a lambda that computes a time-out inside it waits only for
// what is left.
template <typename Call>
auto RetryOnEintr(Call&& call) -> decltype(call()) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

}  // namespace Pendrel::base
