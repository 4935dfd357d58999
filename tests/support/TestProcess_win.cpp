#include <windows.h>

#include "tests/support/TestProcess.h"

namespace pendrel_test {
namespace {

std::wstring QuotedCommandLine(const std::vector<std::wstring>& arguments) {
  std::wstring line;
  for (const std::wstring& argument : arguments) {
    if (!line.empty()) line += L' ';
    line += L'"' + argument + L'"';
  }
  return line;
}

}  // namespace

struct TestProcess::Impl {
  PROCESS_INFORMATION info{};
  bool started = false;
  bool ended = false;
  int exitCode = -1;
};

TestProcess::TestProcess(const std::vector<std::wstring>& arguments)
    : TestProcess(QuotedCommandLine(arguments), arguments) {}

TestProcess::TestProcess(const std::wstring& commandLine, const std::vector<std::wstring>&)
    : m_impl(std::make_unique<Impl>()) {
  std::wstring writable = commandLine;
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  m_impl->started = ::CreateProcessW(nullptr, writable.data(), nullptr, nullptr, FALSE, 0, nullptr,
                                     nullptr, &startup, &m_impl->info) != 0;
}

TestProcess::~TestProcess() {
  if (!m_impl->started) return;
  if (!m_impl->ended && Wait(std::chrono::seconds(10)) == -1) {
    ::TerminateProcess(m_impl->info.hProcess, 99);
    ::WaitForSingleObject(m_impl->info.hProcess, INFINITE);
  }
  ::CloseHandle(m_impl->info.hThread);
  ::CloseHandle(m_impl->info.hProcess);
}

bool TestProcess::Started() const { return m_impl->started; }

std::uint32_t TestProcess::ProcessId() const { return m_impl->info.dwProcessId; }

int TestProcess::Wait(std::chrono::milliseconds timeout) {
  if (!m_impl->started) return -1;
  if (m_impl->ended) return m_impl->exitCode;
  if (::WaitForSingleObject(m_impl->info.hProcess, static_cast<DWORD>(timeout.count())) !=
      WAIT_OBJECT_0) {
    return -1;
  }
  DWORD code = 0;
  ::GetExitCodeProcess(m_impl->info.hProcess, &code);
  m_impl->ended = true;
  m_impl->exitCode = static_cast<int>(code);
  return m_impl->exitCode;
}

std::filesystem::path OwnExecutable() {
  std::wstring path(32768, L'\0');
  path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return path;
}

std::uint32_t OwnProcessId() { return ::GetCurrentProcessId(); }

}  // namespace pendrel_test
