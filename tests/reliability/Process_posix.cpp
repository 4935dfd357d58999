// Linux side of the reliability support: processes as /proc and kill() see them.
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <thread>

#include "tests/reliability/ReliabilitySupport.h"

namespace pendrel_reliability {

bool ProcessGoneWithin(std::uint32_t pid, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  // A zombie still answers kill(); only a collected process is gone.
  while (::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

bool ProcessEndedWithin(std::uint32_t pid, std::chrono::milliseconds timeout) {
  const int fd = static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0));
  if (fd < 0) return errno == ESRCH;
  pollfd ended{fd, POLLIN, 0};
  const int ready = ::poll(&ended, 1, static_cast<int>(timeout.count()));
  ::close(fd);
  return ready > 0;
}

CTolvane::CHandlerExit KilledByTheLibrary() { return {CTolvane::EHandlerEnd::Signaled, SIGKILL}; }

bool KillProcess(std::uint32_t pid) { return ::kill(static_cast<pid_t>(pid), SIGKILL) == 0; }

std::uint64_t ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  std::uint64_t size = 0;
  std::uint64_t resident = 0;
  if (!(statm >> size >> resident)) return 0;
  return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace pendrel_reliability
