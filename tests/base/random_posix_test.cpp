// The random source is the operating system's: a forked process draws other bits than its
// parent, which no generator state inside the process (copied by fork) could give.
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>

#include "base/Random.h"
#include "base/RetryOnEintr.h"

namespace {

using Pendrel::base::RandomBits;
using Pendrel::base::RetryOnEintr;

TEST(RandomBits, ForkedChildDrawsOtherBitsThanItsParent) {
  RandomBits();  // whatever the source keeps is set up before the fork
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  const pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    const std::uint64_t bits = RandomBits();
    const bool written = ::write(pipeFds[1], &bits, sizeof(bits)) == sizeof(bits);
    ::_exit(written ? 0 : 1);
  }
  ::close(pipeFds[1]);
  const std::uint64_t parent = RandomBits();
  std::uint64_t child = 0;
  const ssize_t got = RetryOnEintr([&] { return ::read(pipeFds[0], &child, sizeof(child)); });
  ::close(pipeFds[0]);
  int status = 0;
  RetryOnEintr([&] { return ::waitpid(pid, &status, 0); });
  ASSERT_EQ(got, static_cast<ssize_t>(sizeof(child)));
  EXPECT_NE(parent, child);
}

TEST(RandomBits, EveryBitTakesBothValues) {
  std::uint64_t any = 0;
  std::uint64_t all = ~std::uint64_t{0};
  for (int i = 0; i < 64; ++i) {
    const std::uint64_t bits = RandomBits();
    any |= bits;
    all &= bits;
  }
  EXPECT_EQ(any, ~std::uint64_t{0});
  EXPECT_EQ(all, 0u);
}

}  // namespace
