#include "tests/handler_kit/KitTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>  // std::min
#include <atomic>
#include <cctype>  // std::isalnum
#include <thread>
#include <vector>

#include "handler/detail/CommandLine.h"
#include "json/TextConversion.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#endif

namespace pendrel_test {
namespace {

std::uint32_t OwnProcessId() {
#ifdef _WIN32
  return ::GetCurrentProcessId();
#else
  return static_cast<std::uint32_t>(::getpid());
#endif
}

}  // namespace

std::wstring UniqueKitPipeName() {
  static std::atomic<unsigned> counter{0};
  std::string name = "hk" + std::to_string(OwnProcessId()) + "-" + std::to_string(++counter);
  if (const auto* test = testing::UnitTest::GetInstance()->current_test_info()) {
    name += "-";
    name += test->name();
  }
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '-';
  }
  // Socket paths are short (108 bytes with their folder).
  name.resize(std::min<std::size_t>(name.size(), 60));
  return std::wstring(name.begin(), name.end());
}

KitConversation::KitConversation(PendrelKit::CHandlerKit& kit) {
  PendrelKit::CHandlerArguments arguments;
  arguments.PipeName = UniqueKitPipeName();
  // The kit tries to connect until the server end is there.
  m_run = std::async(std::launch::async, [&kit, arguments] { return kit.Run(arguments); });
  m_connected = m_server.Open(arguments.PipeName);
}

KitConversation::~KitConversation() { Finish(); }

std::string KitConversation::Next(std::chrono::milliseconds timeout) {
  std::string message;
  if (m_server.WaitForMessage(message, timeout) != Pendrel::EWaitResult::Message) return "<none>";
  return message;
}

std::string KitConversation::Exchange(const std::string& message,
                                      std::chrono::milliseconds timeout) {
  m_server.Post(message);
  return Next(timeout);
}

int KitConversation::Finish() {
  if (!m_run.valid()) return -1;
  m_server.Close();
  if (m_run.wait_for(20s) != std::future_status::ready) return -1;
  return m_run.get();
}

#ifdef _WIN32

struct HandlerProcess::Impl {
  PROCESS_INFORMATION info{};
  bool started = false;
  bool ended = false;
};

HandlerProcess::HandlerProcess(const std::wstring& path, const std::wstring& pipeName, int mode,
                               const std::wstring& extraArguments)
    : m_impl(std::make_unique<Impl>()) {
  std::wstring commandLine =
      CTolvane::detail::BuildCommandLine(path, pipeName, mode, extraArguments);
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  m_impl->started = ::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0,
                                     nullptr, nullptr, &startup, &m_impl->info) != 0;
}

HandlerProcess::~HandlerProcess() {
  if (!m_impl->started) return;
  if (!m_impl->ended && Wait(10s) == -1) {
    ::TerminateProcess(m_impl->info.hProcess, 99);
    ::WaitForSingleObject(m_impl->info.hProcess, INFINITE);
  }
  ::CloseHandle(m_impl->info.hThread);
  ::CloseHandle(m_impl->info.hProcess);
}

bool HandlerProcess::Started() const { return m_impl->started; }

std::uint32_t HandlerProcess::ProcessId() const { return m_impl->info.dwProcessId; }

int HandlerProcess::Wait(std::chrono::milliseconds timeout) {
  if (!m_impl->started) return -1;
  if (::WaitForSingleObject(m_impl->info.hProcess, static_cast<DWORD>(timeout.count())) !=
      WAIT_OBJECT_0) {
    return -1;
  }
  m_impl->ended = true;
  DWORD code = 0;
  ::GetExitCodeProcess(m_impl->info.hProcess, &code);
  return static_cast<int>(code);
}

#else

struct HandlerProcess::Impl {
  pid_t pid = -1;
  bool ended = false;
  int exitCode = -1;
};

HandlerProcess::HandlerProcess(const std::wstring& path, const std::wstring& pipeName, int mode,
                               const std::wstring& extraArguments)
    : m_impl(std::make_unique<Impl>()) {
  std::vector<std::string> arguments;
  for (const std::wstring& argument :
       CTolvane::detail::BuildArgumentVector(path, pipeName, mode, extraArguments)) {
    arguments.push_back(Pendrel::Utf16ToUtf8(argument));
  }
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) == 0) {
    m_impl->pid = pid;
  }
}

HandlerProcess::~HandlerProcess() {
  if (m_impl->pid <= 0 || m_impl->ended) return;
  if (Wait(10s) == -1) {
    ::kill(m_impl->pid, SIGKILL);
    int status = 0;
    while (::waitpid(m_impl->pid, &status, 0) == -1 && errno == EINTR) {
    }
  }
}

bool HandlerProcess::Started() const { return m_impl->pid > 0; }

std::uint32_t HandlerProcess::ProcessId() const { return static_cast<std::uint32_t>(m_impl->pid); }

int HandlerProcess::Wait(std::chrono::milliseconds timeout) {
  if (m_impl->pid <= 0) return -1;
  if (m_impl->ended) return m_impl->exitCode;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int status = 0;
    const pid_t done = ::waitpid(m_impl->pid, &status, WNOHANG);
    if (done == m_impl->pid) {
      m_impl->ended = true;
      m_impl->exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return m_impl->exitCode;
    }
    if (done == -1 && errno != EINTR) return -1;
    if (std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(10ms);
  }
}

#endif

}  // namespace pendrel_test
