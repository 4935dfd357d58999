#include "base/UniqueFd.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <utility>

namespace Pendrel::base {
namespace {

// A pipe whose write end is what a test hands to an owner: once every copy of the write end
// is closed, reading the other end gives end of file at once.
class PipeEnds {
 public:
  PipeEnds() {
    int fds[2] = {-1, -1};
    EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
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
    ::fcntl(m_read, F_SETFL, O_NONBLOCK);
    char byte = 0;
    return ::read(m_read, &byte, 1) == 0;
  }

 private:
  int m_read = -1;
  int m_write = -1;
};

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

TEST(UniqueFd, StartsEmpty) {
  const UniqueFd fd;
  EXPECT_EQ(fd.Get(), -1);
  EXPECT_FALSE(fd);
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

TEST(UniqueFd, MoveHandsOverWithoutClosing) {
  PipeEnds pipe;
  UniqueFd first(pipe.TakeWriteEnd());
  const int raw = first.Get();
  {
    const UniqueFd second(std::move(first));
    EXPECT_EQ(first.Get(), -1);  // NOLINT(bugprone-use-after-move): moved-from is empty
    EXPECT_EQ(second.Get(), raw);
    EXPECT_FALSE(pipe.WriteEndClosed());
  }
  EXPECT_TRUE(pipe.WriteEndClosed());
}

TEST(UniqueFd, MoveAssignmentClosesWhatTheTargetHeld) {
  PipeEnds old;
  PipeEnds next;
  UniqueFd target(old.TakeWriteEnd());
  UniqueFd source(next.TakeWriteEnd());
  target = std::move(source);
  EXPECT_TRUE(old.WriteEndClosed());
  EXPECT_FALSE(next.WriteEndClosed());
  EXPECT_FALSE(source);  // NOLINT(bugprone-use-after-move): moved-from is empty
  target.Reset();
  EXPECT_TRUE(next.WriteEndClosed());
}

TEST(UniqueFd, ReleaseGivesUpWithoutClosing) {
  PipeEnds pipe;
  int raw = -1;
  {
    UniqueFd fd(pipe.TakeWriteEnd());
    raw = fd.Release();
    EXPECT_EQ(fd.Get(), -1);
  }
  EXPECT_TRUE(IsOpen(raw));
  EXPECT_FALSE(pipe.WriteEndClosed());
  ::close(raw);
  EXPECT_TRUE(pipe.WriteEndClosed());
}

TEST(UniqueFd, ResetClosesAndTakesTheNewDescriptor) {
  PipeEnds old;
  PipeEnds next;
  UniqueFd fd(old.TakeWriteEnd());
  const int raw = next.TakeWriteEnd();
  fd.Reset(raw);
  EXPECT_TRUE(old.WriteEndClosed());
  EXPECT_EQ(fd.Get(), raw);
  EXPECT_FALSE(next.WriteEndClosed());
}

}  // namespace
}  // namespace Pendrel::base
