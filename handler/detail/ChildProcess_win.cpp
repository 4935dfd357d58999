#include <windows.h>

#include <utility>

#include "handler/detail/ChildProcess.h"

namespace CTolvane::detail {
namespace {

// Owner of one HANDLE.
class Handle {
 public:
  Handle() = default;
  explicit Handle(HANDLE handle) : m_handle(handle) {}
  ~Handle() { Reset(); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  HANDLE Get() const { return m_handle; }
  void Reset(HANDLE handle = nullptr) {
    if (m_handle != nullptr) CloseHandle(m_handle);
    m_handle = handle;
  }

 private:
  HANDLE m_handle = nullptr;
};

}  // namespace

struct ChildProcess::Impl {
  Handle process;
  DWORD id = 0;
  HANDLE wait = nullptr;  // registered thread-pool wait on `process`
  std::function<void()> onExit;

  static void CALLBACK ProcessEnded(PVOID context, BOOLEAN /*timedOut*/) {
    static_cast<Impl*>(context)->onExit();
  }
};

ChildProcess::ChildProcess() : m_impl(std::make_unique<Impl>()) {}

ChildProcess::~ChildProcess() {
  // INVALID_HANDLE_VALUE: returns only once a callback that already runs has finished.
  if (m_impl->wait != nullptr) UnregisterWaitEx(m_impl->wait, INVALID_HANDLE_VALUE);
}

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
  CloseHandle(info.hThread);
  m_impl->process.Reset(info.hProcess);
  m_impl->id = info.dwProcessId;
  return 0;
}

std::uint32_t ChildProcess::Id() const { return m_impl->id; }

void ChildProcess::WatchExit(std::function<void()> onExit) {
  Impl& impl = *m_impl;
  if (impl.process.Get() == nullptr || impl.wait != nullptr) return;
  impl.onExit = std::move(onExit);
  if (!RegisterWaitForSingleObject(&impl.wait, impl.process.Get(), &Impl::ProcessEnded, &impl,
                                   INFINITE, WT_EXECUTEONLYONCE)) {
    impl.wait = nullptr;  // unwatched: a dead handler is then noticed by the time limit
  }
}

}  // namespace CTolvane::detail
