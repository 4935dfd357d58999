#include "base/UniqueFd.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <utility>

namespace Pendrel::base {
namespace {

// A pipe whose write end a test hands to an owner: once the write end is closed, reading the
// other end gives end of file at once.
class PipeEnds {
 public:
  PipeEnds() {
    int fds[2] = {-1, -1};
    EXPECT_EQ(::pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    m_read = fds[0];
    m_write = fds[1];
  }
  ~PipeEnds() {
    if (m_read >= 0) ::close(m_read);
  }
  PipeEnds(const PipeEnds&) = delete;
  PipeEnds& operator=(const PipeEnds&) = delete;

  int TakeWriteEnd() { return std::exchange(m_write, -1); }

  // Whether the write end has been closed; does not block.
  bool WriteEndClosed() const {
    char byte = 0;
    return ::read(m_read, &byte, 1) == 0;
  }

 private:
  int m_read = -1;
  int m_write = -1;
};

TEST(UniqueFd, EmptyIsMinusOne) {
  const UniqueFd fd;
  EXPECT_EQ(fd.Get(), -1);
  EXPECT_FALSE(fd);
  EXPECT_FALSE(UniqueFd(-1));
}

TEST(UniqueFd, ClosesOnDestruction) {
  PipeEnds pipe;
  {
    const UniqueFd fd(pipe.TakeWriteEnd());
    EXPECT_TRUE(fd);
    EXPECT_FALSE(pipe.WriteEndClosed());
  }
  EXPECT_TRUE(pipe.WriteEndClosed());
}

TEST(UniqueFd, ClosesWhenMovedOnto) {
  PipeEnds old;
  PipeEnds next;
  UniqueFd target(old.TakeWriteEnd());
  target = UniqueFd(next.TakeWriteEnd());
  EXPECT_TRUE(old.WriteEndClosed());
  EXPECT_FALSE(next.WriteEndClosed());
}

TEST(UniqueFd, ReleaseLeavesTheDescriptorOpen) {
  PipeEnds pipe;
  int raw = -1;
  { raw = UniqueFd(pipe.TakeWriteEnd()).Release(); }
  EXPECT_NE(::fcntl(raw, F_GETFD), -1);
  EXPECT_FALSE(pipe.WriteEndClosed());
  ::close(raw);
  EXPECT_TRUE(pipe.WriteEndClosed());
}

}  // namespace
}  // namespace Pendrel::base
