// Linux: the signals are blocked and read from a signalfd by the watcher thread, so that no
// code runs in a signal handler and pendrel decides what a signal means at a safe point.
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>  // SYS_pidfd_open, SYS_pidfd_send_signal
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <thread>
#include <utility>

#include "tools/cli/Signals.h"

namespace PendrelCli {
namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

// A file descriptor, closed with its owner.
class CFd {
 public:
  explicit CFd(int fd = -1) : m_fd(fd) {}
  ~CFd() {
    if (m_fd >= 0) ::close(m_fd);
  }
  CFd(const CFd&) = delete;
  CFd& operator=(const CFd&) = delete;
  int Get() const { return m_fd; }
  void Reset(int fd) {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = fd;
  }

 private:
  int m_fd;
};

int RetryPoll(pollfd* fds, nfds_t count, int timeoutMs) {
  int result = 0;
  do {
    result = ::poll(fds, count, timeoutMs);
  } while (result < 0 && errno == EINTR);
  return result;
}

// Asks the process `pid` to end and kills it when it has not ended within `graceMs`, unless
// `stopFd` says first that pendrel is ending anyway (its own stop of the handler kills then).
// A pidfd names the process itself, so an id reused meanwhile is never hit.
void AskToEnd(std::uint32_t pid, std::uint32_t graceMs, int stopFd) {
#if defined(SYS_pidfd_open) && defined(SYS_pidfd_send_signal)
  const CFd process(static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0)));
  if (process.Get() >= 0) {
    if (::syscall(SYS_pidfd_send_signal, process.Get(), SIGTERM, nullptr, 0) != 0) return;
    pollfd fds[2] = {{process.Get(), POLLIN, 0}, {stopFd, POLLIN, 0}};
    const int ready = RetryPoll(fds, 2, static_cast<int>(graceMs));
    if (ready == 0) ::syscall(SYS_pidfd_send_signal, process.Get(), SIGKILL, nullptr, 0);
    return;
  }
#endif
  // Without pidfds: the library has not collected the process while it holds the handler,
  // so the id is still its own; the kill is left to the library's own stop.
  ::kill(static_cast<pid_t>(pid), SIGTERM);
  (void)graceMs;
  (void)stopFd;
}

}  // namespace

struct CStopSignals::Impl {
  std::function<std::uint32_t(int)> onSignal;
  std::uint32_t gracePeriodMs = 0;
  std::atomic<int> received{0};
  CFd signals;
  CFd stop{::eventfd(0, EFD_CLOEXEC)};
  std::thread watcher;

  void Watch() {
    for (;;) {
      pollfd fds[2] = {{signals.Get(), POLLIN, 0}, {stop.Get(), POLLIN, 0}};
      if (RetryPoll(fds, 2, -1) < 0 || (fds[1].revents & POLLIN)) return;
      if (!(fds[0].revents & POLLIN)) continue;
      signalfd_siginfo info{};
      if (::read(signals.Get(), &info, sizeof info) != static_cast<ssize_t>(sizeof info)) continue;
      int expected = 0;
      if (!received.compare_exchange_strong(expected, static_cast<int>(info.ssi_signo))) continue;
      const std::uint32_t pid = onSignal(static_cast<int>(info.ssi_signo));
      if (pid != 0) AskToEnd(pid, gracePeriodMs, stop.Get());
    }
  }
};

CStopSignals::CStopSignals(std::function<std::uint32_t(int)> onSignal, std::uint32_t gracePeriodMs)
    : m_impl(std::make_unique<Impl>()) {
  m_impl->onSignal = std::move(onSignal);
  m_impl->gracePeriodMs = gracePeriodMs;
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : kStopSignals) ::sigaddset(&set, signal);
  // Blocked for good: a signal that comes after the watcher has ended stays pending.
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  m_impl->signals.Reset(::signalfd(-1, &set, SFD_CLOEXEC));
  if (m_impl->signals.Get() < 0 || m_impl->stop.Get() < 0) return;
  m_impl->watcher = std::thread([impl = m_impl.get()] { impl->Watch(); });
}

CStopSignals::~CStopSignals() {
  if (!m_impl->watcher.joinable()) return;
  const std::uint64_t one = 1;
  ssize_t written = 0;
  do {
    written = ::write(m_impl->stop.Get(), &one, sizeof one);
  } while (written < 0 && errno == EINTR);
  m_impl->watcher.join();
}

int CStopSignals::Received() const { return m_impl->received.load(); }

std::string SignalName(int signal) {
  struct CSignalRow {
    int Number;
    const char* Name;
  };
  static constexpr CSignalRow kNames[] = {
      {SIGHUP, "SIGHUP"},   {SIGINT, "SIGINT"},   {SIGQUIT, "SIGQUIT"}, {SIGILL, "SIGILL"},
      {SIGTRAP, "SIGTRAP"}, {SIGABRT, "SIGABRT"}, {SIGBUS, "SIGBUS"},   {SIGFPE, "SIGFPE"},
      {SIGKILL, "SIGKILL"}, {SIGUSR1, "SIGUSR1"}, {SIGSEGV, "SIGSEGV"}, {SIGUSR2, "SIGUSR2"},
      {SIGPIPE, "SIGPIPE"}, {SIGALRM, "SIGALRM"}, {SIGTERM, "SIGTERM"}, {SIGXCPU, "SIGXCPU"},
      {SIGXFSZ, "SIGXFSZ"}, {SIGSYS, "SIGSYS"},
  };
  for (const CSignalRow& row : kNames) {
    if (row.Number == signal) return row.Name;
  }
  return "signal " + std::to_string(signal);
}

}  // namespace PendrelCli
