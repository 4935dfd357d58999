#include <windows.h>

#include <utility>

#include "base/ScopedHandle_win.h"
#include "handler/detail/ChildProcess.h"

namespace CTolvane::detail {

struct ChildProcess::Impl {
  Pendrel::base::ScopedKernelHandle process;
  DWORD id = 0;
  std::function<void()> onExit;
  // Registered thread-pool wait on `process`. Declared last, so that it is unregistered
  // (waiting for a callback that already runs) before `onExit` and `process` go.
  Pendrel::base::ScopedRegisteredWait wait;

  static void CALLBACK ProcessEnded(PVOID context, BOOLEAN /*timedOut*/) {
    static_cast<Impl*>(context)->onExit();
  }
};

ChildProcess::ChildProcess() : m_impl(std::make_unique<Impl>()) {}

ChildProcess::~ChildProcess() = default;

std::uint32_t ChildProcess::Start(const std::wstring& commandLine,
                                  const std::vector<std::wstring>& /*arguments*/) {
  std::wstring writable = commandLine;  // CreateProcessW may write into its command line
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION info{};
  if (!CreateProcessW(nullptr, writable.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                      &startup, &info)) {
    return GetLastError();
  }
  const Pendrel::base::ScopedKernelHandle thread(info.hThread);  // not needed: closed here
  m_impl->process.Reset(info.hProcess);
  m_impl->id = info.dwProcessId;
  return 0;
}

std::uint32_t ChildProcess::Id() const { return m_impl->id; }

void ChildProcess::WatchExit(std::function<void()> onExit) {
  Impl& impl = *m_impl;
  if (!impl.process || impl.wait) return;
  impl.onExit = std::move(onExit);
  HANDLE wait = nullptr;
  // Unwatched on failure: a dead handler is then noticed by the time limit.
  if (RegisterWaitForSingleObject(&wait, impl.process.Get(), &Impl::ProcessEnded, &impl, INFINITE,
                                  WT_EXECUTEONLYONCE)) {
    impl.wait.Reset(wait);
  }
}

}  // namespace CTolvane::detail
