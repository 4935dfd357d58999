#include "base/RetryOnEintr.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

namespace Pendrel::base {
namespace {

// Fails with `error` for its first `failures` calls, then returns `result`.
struct FlakyCall {
  int failures;
  int error;
  long result;
  int calls = 0;

  long operator()() {
    ++calls;
    if (calls <= failures) {
      errno = error;
      return -1;
    }
    return result;
  }
};

TEST(RetryOnEintr, RepeatsACallInterruptedBySignals) {
  FlakyCall call{2, EINTR, 7};
  EXPECT_EQ(RetryOnEintr([&] { return call(); }), 7);
  EXPECT_EQ(call.calls, 3);
}

TEST(RetryOnEintr, ReturnsOtherFailuresAtOnceWithTheirError) {
  FlakyCall call{5, EBADF, 7};
  errno = 0;
  EXPECT_EQ(RetryOnEintr([&] { return call(); }), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(call.calls, 1);
}

TEST(RetryOnEintr, CallsASucceedingCallOnce) {
  FlakyCall call{0, EINTR, 0};
  EXPECT_EQ(RetryOnEintr([&] { return call(); }), 0);
  EXPECT_EQ(call.calls, 1);
}

TEST(RetryOnEintr, EvaluatesItsArgumentsAfresh) {
  // A time-out computed inside the call is computed again for the next attempt.
  int attempt = 0;
  std::vector<int> timeouts;
  RetryOnEintr([&] {
    timeouts.push_back(100 - 10 * attempt++);
    errno = EINTR;
    return attempt < 3 ? -1 : 1;
  });
  EXPECT_EQ(timeouts, (std::vector<int>{100, 90, 80}));
}

}  // namespace
}  // namespace Pendrel::base
