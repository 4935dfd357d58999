#include "base/Deadline.h"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>

namespace Pendrel::base {
namespace {

using namespace std::chrono_literals;

// A fixed "now", so that no result depends on how fast the test runs.
const Clock::time_point kNow = Clock::time_point(1000h);

TEST(Deadline, NeverIsNeverPassed) {
  EXPECT_FALSE(Passed(kNever, kNow));
  EXPECT_FALSE(Passed(kNever, Clock::time_point::max() - 1ns));
}

TEST(Deadline, NeverWaitsWithoutLimit) {
  EXPECT_EQ(RemainingMs(kNever, kNow), std::chrono::milliseconds::max());
  EXPECT_EQ(PollTimeoutMs(kNever, kNow), -1);
  EXPECT_EQ(WaitTimeoutMs(kNever, kNow), kWaitForever);
}

TEST(Deadline, PassedFromItsMomentOn) {
  EXPECT_FALSE(Passed(kNow + 1ns, kNow));
  EXPECT_TRUE(Passed(kNow, kNow));
  EXPECT_TRUE(Passed(kNow - 1ms, kNow));
}

TEST(Deadline, AfterAddsTheTimeout) {
  EXPECT_EQ(DeadlineAfter(5ms, kNow), kNow + 5ms);
  EXPECT_EQ(DeadlineAfter(0ms, kNow), kNow);
  EXPECT_TRUE(Passed(DeadlineAfter(-1ms, kNow), kNow));
}

TEST(Deadline, AfterBeyondTheClockIsNever) {
  EXPECT_EQ(DeadlineAfter(Clock::duration::max(), kNow), kNever);
  EXPECT_EQ(DeadlineAfter(kNever - kNow, kNow), kNever);
}

TEST(Deadline, RemainingRoundsUp) {
  EXPECT_EQ(RemainingMs(kNow + 1ns, kNow), 1ms);
  EXPECT_EQ(RemainingMs(kNow + 1500us, kNow), 2ms);
  EXPECT_EQ(RemainingMs(kNow + 3ms, kNow), 3ms);
  EXPECT_EQ(RemainingMs(kNow, kNow), 0ms);
  EXPECT_EQ(RemainingMs(kNow - 1s, kNow), 0ms);
}

TEST(Deadline, PollTimeoutRoundsUpSoTheWaitDoesNotEndEarly) {
  EXPECT_EQ(PollTimeoutMs(kNow + 1ns, kNow), 1);
  EXPECT_EQ(PollTimeoutMs(kNow + 1500us, kNow), 2);
  EXPECT_EQ(PollTimeoutMs(kNow + 250ms, kNow), 250);
}

TEST(Deadline, PollTimeoutOfAPassedDeadlineIsZero) {
  EXPECT_EQ(PollTimeoutMs(kNow, kNow), 0);
  EXPECT_EQ(PollTimeoutMs(kNow - 1h, kNow), 0);
}

TEST(Deadline, PollTimeoutIsClampedToInt) {
  const auto longest = std::chrono::milliseconds(std::numeric_limits<int>::max());
  EXPECT_EQ(PollTimeoutMs(kNow + longest, kNow), std::numeric_limits<int>::max());
  EXPECT_EQ(PollTimeoutMs(kNow + longest + 1ms, kNow), std::numeric_limits<int>::max());
  EXPECT_EQ(PollTimeoutMs(kNow + 24h * 365 * 100, kNow), std::numeric_limits<int>::max());
}

TEST(Deadline, WaitTimeoutRoundsUp) {
  EXPECT_EQ(WaitTimeoutMs(kNow + 1ns, kNow), 1u);
  EXPECT_EQ(WaitTimeoutMs(kNow + 1500us, kNow), 2u);
  EXPECT_EQ(WaitTimeoutMs(kNow, kNow), 0u);
  EXPECT_EQ(WaitTimeoutMs(kNow - 1s, kNow), 0u);
}

TEST(Deadline, DistantWaitTimeoutStaysALimit) {
  EXPECT_EQ(WaitTimeoutMs(kNow + std::chrono::milliseconds(kWaitForever - 1), kNow),
            kWaitForever - 1);
  EXPECT_EQ(WaitTimeoutMs(kNow + std::chrono::milliseconds(kWaitForever), kNow), kWaitForever - 1);
  EXPECT_EQ(WaitTimeoutMs(kNow + 24h * 365 * 100, kNow), kWaitForever - 1);
}

TEST(Deadline, MonotonicMsCountsWholeMilliseconds) {
  EXPECT_EQ(MonotonicMs(Clock::time_point(3s)), 3000u);
  EXPECT_EQ(MonotonicMs(Clock::time_point(3s + 999us)), 3000u);
  EXPECT_LE(MonotonicMs(kNow), MonotonicMs(kNow + 1ms));
}

}  // namespace
}  // namespace Pendrel::base
