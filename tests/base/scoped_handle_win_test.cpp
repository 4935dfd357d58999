#include "base/ScopedHandle_win.h"

#include <gtest/gtest.h>

#include <utility>

namespace Pendrel::base {
namespace {

bool IsOpen(HANDLE handle) {
  DWORD flags = 0;
  return ::GetHandleInformation(handle, &flags) != 0;
}

HANDLE NewEvent() { return ::CreateEventW(nullptr, TRUE, FALSE, nullptr); }

void CALLBACK IgnoreWait(PVOID /*context*/, BOOLEAN /*timedOut*/) {}

TEST(ScopedHandle, EmptyIsWhatTheTraitsSay) {
  const ScopedFileHandle file;
  EXPECT_EQ(file.Get(), INVALID_HANDLE_VALUE);
  EXPECT_FALSE(file);
  const ScopedKernelHandle kernel;
  EXPECT_EQ(kernel.Get(), nullptr);
  EXPECT_FALSE(kernel);
  const ScopedRegisteredWait wait;
  EXPECT_EQ(wait.Get(), nullptr);
  EXPECT_FALSE(wait);
}

TEST(ScopedHandle, FailedCallsGiveEmptyOwners) {
  const ScopedFileHandle file(::CreateFileW(L"Z:\\no\\such\\folder\\file", GENERIC_READ, 0, nullptr,
                                            OPEN_EXISTING, 0, nullptr));
  EXPECT_FALSE(file);
  const ScopedKernelHandle kernel(nullptr);
  EXPECT_FALSE(kernel);
}

TEST(ScopedHandle, ClosesOnDestruction) {
  const HANDLE raw = NewEvent();
  ASSERT_NE(raw, nullptr);
  {
    const ScopedKernelHandle event(raw);
    EXPECT_TRUE(event);
    EXPECT_TRUE(IsOpen(raw));
  }
  EXPECT_FALSE(IsOpen(raw));
}

TEST(ScopedHandle, MoveHandsOverWithoutClosing) {
  ScopedKernelHandle first(NewEvent());
  const HANDLE raw = first.Get();
  {
    const ScopedKernelHandle second(std::move(first));
    EXPECT_EQ(first.Get(), nullptr);  // NOLINT(bugprone-use-after-move): moved-from is empty
    EXPECT_EQ(second.Get(), raw);
    EXPECT_TRUE(IsOpen(raw));
  }
  EXPECT_FALSE(IsOpen(raw));
}

TEST(ScopedHandle, ReleaseGivesUpWithoutClosing) {
  HANDLE raw = nullptr;
  {
    ScopedKernelHandle event(NewEvent());
    raw = event.Release();
    EXPECT_FALSE(event);
  }
  EXPECT_TRUE(IsOpen(raw));
  ::CloseHandle(raw);
}

TEST(ScopedHandle, RegisteredWaitIsEmptyAfterReset) {
  ScopedKernelHandle event(NewEvent());
  HANDLE raw = nullptr;
  ASSERT_TRUE(::RegisterWaitForSingleObject(&raw, event.Get(), &IgnoreWait, nullptr, INFINITE,
                                            WT_EXECUTEONLYONCE));
  ScopedRegisteredWait wait(raw);
  EXPECT_TRUE(wait);
  wait.Reset();
  EXPECT_FALSE(wait);
  // The event the wait watched outlives it and is still usable.
  EXPECT_TRUE(IsOpen(event.Get()));
}

}  // namespace
}  // namespace Pendrel::base
