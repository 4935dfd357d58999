#include "tests/pipe/PipeTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>  // std::min, std::max
#include <atomic>
#include <cctype>  // std::isalnum
#include <filesystem>
#include <future>
#include <thread>

#ifdef _WIN32
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#endif

namespace pendrel_test {

using Pendrel::detail::Clock;
using Pendrel::detail::Deadline;
using Pendrel::detail::ETransportFailure;

std::wstring UniquePipeName() {
  static std::atomic<unsigned> counter{0};
  std::string name = "pt" + std::to_string(OwnProcessId()) + "-" + std::to_string(++counter);
  if (const auto* test = testing::UnitTest::GetInstance()->current_test_info()) {
    name += "-";
    name += test->name();
  }
  // Parameterised tests are named "Test/3"; a name must not leave the pipe's folder.
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '-';
  }
  // Socket paths are short (108 bytes with their folder).
  name.resize(std::min<std::size_t>(name.size(), 60));
  return std::wstring(name.begin(), name.end());
}

std::uint32_t PeerGoneCode() {
#ifdef _WIN32
  return ERROR_BROKEN_PIPE;
#else
  return EPIPE;
#endif
}

std::uint32_t OwnProcessId() {
#ifdef _WIN32
  return ::GetCurrentProcessId();
#else
  return static_cast<std::uint32_t>(::getpid());
#endif
}

std::string MakePacket(std::uint32_t remaining, std::uint32_t payloadLength,
                       std::string_view payload, std::size_t packetSize) {
  std::string packet(std::max(packetSize, payload.size() + 8), '\0');
  for (int i = 0; i < 4; ++i) {
    packet[i] = static_cast<char>((remaining >> (8 * i)) & 0xFF);
    packet[4 + i] = static_cast<char>((payloadLength >> (8 * i)) & 0xFF);
  }
  packet.replace(8, payload.size(), payload);
  packet.resize(packetSize);
  return packet;
}

std::uint32_t HeaderWord(std::string_view packet, int index) {
  std::uint32_t value = 0;
  for (int i = 3; i >= 0; --i) {
    value = (value << 8) | static_cast<unsigned char>(packet.at(4 * index + i));
  }
  return value;
}

std::string PatternMessage(std::size_t size, unsigned seed) {
  std::string message(size, '\0');
  std::uint32_t state = 0x9E3779B9u * (seed + 1);
  for (char& c : message) {
    state = state * 1664525u + 1013904223u;
    c = static_cast<char>(state >> 24);
  }
  return message;
}

std::uint32_t RawClient::ConnectOnce(const std::wstring& name) { return m_transport.Connect(name); }

bool RawClient::Connect(const std::wstring& name, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (m_transport.Connect(name) != 0) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

void RawClient::Pump(Deadline deadline) {
  const auto events = m_transport.Wait(deadline, 32768, std::size_t{1} << 30);
  if (events.received) {
    m_received.emplace_back(m_transport.Packet());
    ++m_packetsRead;
  }
  if (events.sent) m_sent = true;
  if (events.failure != ETransportFailure::None) {
    m_failure = events.failure;
    m_code = events.code;
  }
}

bool RawClient::Read(std::string& packet, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (m_received.empty() && !Failed() && Clock::now() < deadline) Pump(deadline);
  if (m_received.empty()) return false;
  packet = std::move(m_received.front());
  m_received.pop_front();
  return true;
}

bool RawClient::Write(std::string_view packet, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  m_sent = false;
  m_transport.Send(packet);
  while (!m_sent && !Failed() && Clock::now() < deadline) Pump(deadline);
  return m_sent;
}

bool RawClient::WaitForFailure(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!Failed() && Clock::now() < deadline) Pump(deadline);
  return Failed();
}

bool OpenWithRawClient(Pendrel::NamedPipeChannel& server, RawClient& client,
                       const std::wstring& name) {
  auto opened = std::async(std::launch::async, [&] { return server.Open(name); });
  const bool connected = client.Connect(name);
  return opened.get() && connected;
}

// ---- Child processes ----

namespace {

std::filesystem::path OwnExecutable() {
#ifdef _WIN32
  std::wstring path(32768, L'\0');
  path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return path;
#else
  return std::filesystem::read_symlink("/proc/self/exe");
#endif
}

}  // namespace

#ifdef _WIN32

struct ChildProcess::Impl {
  PROCESS_INFORMATION info{};
  bool started = false;
  bool ended = false;
};

ChildProcess::ChildProcess(const std::vector<std::string>& arguments)
    : m_impl(std::make_unique<Impl>()) {
  std::wstring commandLine = L"\"" + OwnExecutable().wstring() + L"\"";
  for (const std::string& argument : arguments) {
    commandLine += L" \"" + std::filesystem::path(argument).wstring() + L"\"";
  }
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  m_impl->started = ::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0,
                                     nullptr, nullptr, &startup, &m_impl->info) != 0;
}

ChildProcess::~ChildProcess() {
  if (!m_impl->started) return;
  if (!m_impl->ended && Wait(10s) == -1) {
    ::TerminateProcess(m_impl->info.hProcess, 99);
    ::WaitForSingleObject(m_impl->info.hProcess, INFINITE);
  }
  ::CloseHandle(m_impl->info.hThread);
  ::CloseHandle(m_impl->info.hProcess);
}

bool ChildProcess::Started() const { return m_impl->started; }

std::uint32_t ChildProcess::ProcessId() const { return m_impl->info.dwProcessId; }

int ChildProcess::Wait(std::chrono::milliseconds timeout) {
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

struct ChildProcess::Impl {
  pid_t pid = -1;
  bool ended = false;
  int exitCode = -1;
};

ChildProcess::ChildProcess(const std::vector<std::string>& arguments)
    : m_impl(std::make_unique<Impl>()) {
  const std::string executable = OwnExecutable().string();
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(executable.c_str()));
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (::posix_spawn(&pid, executable.c_str(), nullptr, nullptr, argv.data(), environ) == 0) {
    m_impl->pid = pid;
  }
}

ChildProcess::~ChildProcess() {
  if (m_impl->pid <= 0 || m_impl->ended) return;
  if (Wait(10s) == -1) {
    ::kill(m_impl->pid, SIGKILL);
    int status = 0;
    while (::waitpid(m_impl->pid, &status, 0) == -1 && errno == EINTR) {
    }
  }
}

bool ChildProcess::Started() const { return m_impl->pid > 0; }

std::uint32_t ChildProcess::ProcessId() const { return static_cast<std::uint32_t>(m_impl->pid); }

int ChildProcess::Wait(std::chrono::milliseconds timeout) {
  if (m_impl->pid <= 0) return -1;
  if (m_impl->ended) return m_impl->exitCode;
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    int status = 0;
    const pid_t done = ::waitpid(m_impl->pid, &status, WNOHANG);
    if (done == m_impl->pid) {
      m_impl->ended = true;
      m_impl->exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return m_impl->exitCode;
    }
    if (done == -1 && errno != EINTR) return -1;
    if (Clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(10ms);
  }
}

#endif

// ---- Child mode ----

int RunPipeChild(int argc, char** argv) {
  if (argc < 2 || std::string_view(argv[0]) != "echo") return 64;
  const std::string narrowName = argv[1];
  const std::wstring name(narrowName.begin(), narrowName.end());
  if (argc >= 3) {
    const std::filesystem::path gate = argv[2];
    const auto gateDeadline = Clock::now() + 30s;
    while (!std::filesystem::exists(gate)) {
      if (Clock::now() >= gateDeadline) return 4;
      std::this_thread::sleep_for(10ms);
    }
  }

  Pendrel::NamedPipeChannel channel;
  // The parent may still be creating its end.
  const auto connectDeadline = Clock::now() + 10s;
  while (!channel.Open(name, Pendrel::EPipeEnd::Client)) {
    if (Clock::now() >= connectDeadline) return 2;
    std::this_thread::sleep_for(20ms);
  }
  for (;;) {
    std::string message;
    switch (channel.WaitForMessage(message, 60s)) {
      case Pendrel::EWaitResult::Message:
        channel.Post(std::move(message));
        break;
      case Pendrel::EWaitResult::Error:
        // The parent closed its end: the normal way out.
        return 0;
      case Pendrel::EWaitResult::TimedOut:
        return 3;
    }
  }
}

}  // namespace pendrel_test
