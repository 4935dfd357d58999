#include "base/ScopedHandle.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace Pendrel::base {
namespace {

// Handles are numbers, 0 is empty, and closing one records it.
std::vector<int> g_closed;

struct FakeTraits {
  using Handle = int;
  static Handle Empty() { return 0; }
  static bool IsValid(Handle handle) { return handle != 0; }
  static void Close(Handle handle) noexcept { g_closed.push_back(handle); }
};

using FakeHandle = ScopedHandle<FakeTraits>;

class ScopedHandleTest : public ::testing::Test {
 protected:
  void SetUp() override { g_closed.clear(); }
};

TEST_F(ScopedHandleTest, StartsEmptyAndClosesNothing) {
  {
    const FakeHandle handle;
    EXPECT_EQ(handle.Get(), 0);
    EXPECT_FALSE(handle);
  }
  EXPECT_TRUE(g_closed.empty());
}

TEST_F(ScopedHandleTest, ClosesOnDestruction) {
  {
    const FakeHandle handle(7);
    EXPECT_TRUE(handle);
    EXPECT_TRUE(g_closed.empty());
  }
  EXPECT_EQ(g_closed, std::vector<int>{7});
}

TEST_F(ScopedHandleTest, MoveHandsOverWithoutClosing) {
  FakeHandle first(7);
  {
    const FakeHandle second(std::move(first));
    EXPECT_EQ(first.Get(), 0);  // NOLINT(bugprone-use-after-move): moved-from is empty
    EXPECT_EQ(second.Get(), 7);
    EXPECT_TRUE(g_closed.empty());
  }
  EXPECT_EQ(g_closed, std::vector<int>{7});
}

TEST_F(ScopedHandleTest, MoveAssignmentClosesWhatTheTargetHeld) {
  FakeHandle target(1);
  FakeHandle source(2);
  target = std::move(source);
  EXPECT_EQ(g_closed, std::vector<int>{1});
  EXPECT_FALSE(source);  // NOLINT(bugprone-use-after-move): moved-from is empty
  EXPECT_EQ(target.Get(), 2);
}

TEST_F(ScopedHandleTest, SelfMoveAssignmentKeepsTheHandle) {
  FakeHandle handle(3);
  FakeHandle& same = handle;
  handle = std::move(same);
  EXPECT_EQ(handle.Get(), 3);
  EXPECT_TRUE(g_closed.empty());
}

TEST_F(ScopedHandleTest, ReleaseGivesUpWithoutClosing) {
  {
    FakeHandle handle(5);
    EXPECT_EQ(handle.Release(), 5);
    EXPECT_FALSE(handle);
  }
  EXPECT_TRUE(g_closed.empty());
}

TEST_F(ScopedHandleTest, ResetClosesAndTakesTheNewHandle) {
  FakeHandle handle(1);
  handle.Reset(2);
  EXPECT_EQ(g_closed, std::vector<int>{1});
  EXPECT_EQ(handle.Get(), 2);
  handle.Reset();
  EXPECT_EQ(g_closed, (std::vector<int>{1, 2}));
  EXPECT_FALSE(handle);
}

}  // namespace
}  // namespace Pendrel::base
