#include "base/ScopedHandle_win.h"

#include <gtest/gtest.h>

namespace Pendrel::base {
namespace {

bool IsOpen(HANDLE handle) {
  DWORD flags = 0;
  return ::GetHandleInformation(handle, &flags) != 0;
}

HANDLE NewEvent() { return ::CreateEventW(nullptr, TRUE, FALSE, nullptr); }

void CALLBACK IgnoreWait(PVOID /*context*/, BOOLEAN /*timedOut*/) {}

TEST(ScopedHandleWin, EmptyIsWhatTheTraitsSay) {
  EXPECT_EQ(ScopedFileHandle().Get(), INVALID_HANDLE_VALUE);
  EXPECT_EQ(ScopedKernelHandle().Get(), nullptr);
  EXPECT_EQ(ScopedRegisteredWait().Get(), nullptr);
  EXPECT_FALSE(ScopedFileHandle(nullptr));
  EXPECT_FALSE(ScopedKernelHandle(INVALID_HANDLE_VALUE));
}

TEST(ScopedHandleWin, FailedOpenGivesAnEmptyOwner) {
  const ScopedFileHandle file(::CreateFileW(L"Z:\\no\\such\\folder\\file", GENERIC_READ, 0, nullptr,
                                            OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(file);
}

TEST(ScopedHandleWin, ClosesOnDestruction) {
  const HANDLE raw = NewEvent();
  ASSERT_NE(raw, nullptr);
  {
    const ScopedKernelHandle event(raw);
    EXPECT_TRUE(event);
    EXPECT_TRUE(IsOpen(raw));
  }
  EXPECT_FALSE(IsOpen(raw));
}

TEST(ScopedHandleWin, ReleaseLeavesTheHandleOpen) {
  const HANDLE raw = ScopedKernelHandle(NewEvent()).Release();
  EXPECT_TRUE(IsOpen(raw));
  ::CloseHandle(raw);
}

TEST(ScopedHandleWin, RegisteredWaitIsUnregisteredNotClosed) {
  const ScopedKernelHandle event(NewEvent());
  HANDLE raw = nullptr;
  ASSERT_TRUE(::RegisterWaitForSingleObject(&raw, event.Get(), &IgnoreWait, nullptr, INFINITE,
                                            WT_EXECUTEONLYONCE));
  ScopedRegisteredWait wait(raw);
  EXPECT_TRUE(wait);
  wait.Reset();
  EXPECT_FALSE(wait);
  // The event the wait watched is the caller's and stays open.
  EXPECT_TRUE(IsOpen(event.Get()));
}

}  // namespace
}  // namespace Pendrel::base
