// Time limits of waits, kept as one point in time on one clock that only goes forward. A
// deadline turns into the time-out each system wait takes: poll(2)'s int milliseconds or a
// Windows wait's DWORD milliseconds, rounded up so that a wait never ends just before its
// deadline. The functions take the current time as a parameter (defaulting to now) so that
// their arithmetic can be checked without waiting.
//
// Thread rules: plain values and pure functions; any thread.
#pragma once

#include <chrono>
#include <cstdint>

namespace Pendrel::base {

using Clock = std::chrono::steady_clock;

// A point in time a wait gives up at. kNever waits without limit.
using Deadline = Clock::time_point;
inline constexpr Deadline kNever = Deadline::max();

// What a Windows wait takes for "no limit" (INFINITE).
inline constexpr std::uint32_t kWaitForever = 0xFFFFFFFF;

// `now` + `timeout`; kNever when that lies beyond what the clock can hold. A negative
// timeout gives a deadline that has passed.
Deadline DeadlineAfter(Clock::duration timeout, Clock::time_point now = Clock::now());

// Whether `deadline` has come (never for kNever).
bool Passed(Deadline deadline, Clock::time_point now = Clock::now());

// Milliseconds left until `deadline`, rounded up; zero once it has passed, and
// milliseconds::max() for kNever.
std::chrono::milliseconds RemainingMs(Deadline deadline, Clock::time_point now = Clock::now());

// The time-out for poll(2): -1 for kNever, otherwise RemainingMs clamped to INT_MAX.
int PollTimeoutMs(Deadline deadline, Clock::time_point now = Clock::now());

// The time-out for a Windows wait: kWaitForever (INFINITE) for kNever, otherwise
// RemainingMs clamped to kWaitForever - 1, so that a distant deadline is still a limit.
std::uint32_t WaitTimeoutMs(Deadline deadline, Clock::time_point now = Clock::now());

// Milliseconds of Clock since its (arbitrary) epoch: for measuring how long ago something
// happened, never for the date.
std::uint64_t MonotonicMs(Clock::time_point now = Clock::now());

}  // namespace Pendrel::base
