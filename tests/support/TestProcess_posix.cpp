#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "base/RetryOnEintr.h"
#include "base/SystemText.h"
#include "tests/support/TestProcess.h"

extern char** environ;  // NOLINT: the test's environment, passed on as it is

namespace pendrel_test {

struct TestProcess::Impl {
  pid_t pid = -1;
  bool ended = false;
  int exitCode = -1;
};

TestProcess::TestProcess(const std::vector<std::wstring>& arguments)
    : TestProcess(std::wstring(), arguments) {}

TestProcess::TestProcess(const std::wstring&, const std::vector<std::wstring>& arguments)
    : m_impl(std::make_unique<Impl>()) {
  if (arguments.empty()) return;
  std::vector<std::string> texts;
  for (const std::wstring& argument : arguments) {
    texts.push_back(Pendrel::base::ToSystemText(argument));
  }
  std::vector<char*> argv;
  for (std::string& text : texts) argv.push_back(text.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) == 0) {
    m_impl->pid = pid;
  }
}

TestProcess::~TestProcess() {
  if (m_impl->pid <= 0 || m_impl->ended) return;
  if (Wait(std::chrono::seconds(10)) == -1) {
    ::kill(m_impl->pid, SIGKILL);
    int status = 0;
    Pendrel::base::RetryOnEintr([&] { return ::waitpid(m_impl->pid, &status, 0); });
  }
}

bool TestProcess::Started() const { return m_impl->pid > 0; }

std::uint32_t TestProcess::ProcessId() const { return static_cast<std::uint32_t>(m_impl->pid); }

int TestProcess::Wait(std::chrono::milliseconds timeout) {
  if (m_impl->pid <= 0) return -1;
  if (m_impl->ended) return m_impl->exitCode;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int status = 0;
    const pid_t done =
        Pendrel::base::RetryOnEintr([&] { return ::waitpid(m_impl->pid, &status, WNOHANG); });
    if (done == m_impl->pid) {
      m_impl->ended = true;
      m_impl->exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return m_impl->exitCode;
    }
    if (done == -1) return -1;
    if (std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::filesystem::path OwnExecutable() { return std::filesystem::read_symlink("/proc/self/exe"); }

std::uint32_t OwnProcessId() { return static_cast<std::uint32_t>(::getpid()); }

}  // namespace pendrel_test
