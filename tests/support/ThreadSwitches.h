// Linux: how often threads of this test program were put to sleep and woken, read from
// /proc (voluntary context switches). Tests use it to show that a thread sleeps through
// events that are none of its business: each needless wake-up is one more switch.
#pragma once

#include <vector>

namespace pendrel_test {

// The calling thread's id as /proc names it.
long CurrentThreadId();
// Voluntary context switches of thread `tid` of this process so far; -1 if it is gone.
long VoluntarySwitches(long tid);
// The ids of this process's threads, in ascending order, and those of the threads started
// since `before` (an earlier ThreadIds()) that still run.
std::vector<long> ThreadIds();
std::vector<long> ThreadsStartedSince(const std::vector<long>& before);
// The sum over the threads `tids`, and over every thread of this process but the calling one.
long VoluntarySwitchesOf(const std::vector<long>& tids);
long VoluntarySwitchesOfOtherThreads();
// Whether thread `tid` is asleep, waiting up to 10 s for it to get there.
bool WaitUntilAsleep(long tid);

}  // namespace pendrel_test
