#include "base/Deadline.h"

#include <limits>

namespace Pendrel::base {

using std::chrono::milliseconds;

Deadline DeadlineAfter(Clock::duration timeout, Clock::time_point now) {
  // Saturates instead of overflowing the clock's representation.
  if (timeout > Clock::duration::zero() && timeout >= kNever - now) return kNever;
  return now + timeout;
}

bool Passed(Deadline deadline, Clock::time_point now) {
  return deadline != kNever && now >= deadline;
}

milliseconds RemainingMs(Deadline deadline, Clock::time_point now) {
  if (deadline == kNever) return milliseconds::max();
  if (now >= deadline) return milliseconds::zero();
  return std::chrono::ceil<milliseconds>(deadline - now);
}

int PollTimeoutMs(Deadline deadline, Clock::time_point now) {
  if (deadline == kNever) return -1;
  constexpr auto kLongest = std::numeric_limits<int>::max();
  const auto ms = RemainingMs(deadline, now).count();
  return ms > kLongest ? kLongest : static_cast<int>(ms);
}

std::uint32_t WaitTimeoutMs(Deadline deadline, Clock::time_point now) {
  if (deadline == kNever) return kWaitForever;
  const auto ms = RemainingMs(deadline, now).count();
  return ms >= kWaitForever ? kWaitForever - 1 : static_cast<std::uint32_t>(ms);
}

std::uint64_t MonotonicMs(Clock::time_point now) {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<milliseconds>(now.time_since_epoch()).count());
}

}  // namespace Pendrel::base
