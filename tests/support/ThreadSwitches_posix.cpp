#include "tests/support/ThreadSwitches.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

namespace pendrel_test {
namespace {

std::string TaskFile(long tid, const char* file) {
  return "/proc/self/task/" + std::to_string(tid) + "/" + file;
}

}  // namespace

long CurrentThreadId() { return static_cast<long>(::syscall(SYS_gettid)); }

long VoluntarySwitches(long tid) {
  std::ifstream status(TaskFile(tid, "status"));
  std::string line;
  while (std::getline(status, line)) {
    constexpr char kKey[] = "voluntary_ctxt_switches:";
    if (line.rfind(kKey, 0) == 0) return std::stol(line.substr(sizeof kKey - 1));
  }
  return -1;
}

long VoluntarySwitchesOfOtherThreads() {
  const long self = CurrentThreadId();
  long sum = 0;
  DIR* tasks = ::opendir("/proc/self/task");
  if (tasks == nullptr) return -1;
  while (const dirent* entry = ::readdir(tasks)) {
    if (entry->d_name[0] == '.') continue;
    const long tid = std::stol(entry->d_name);
    if (tid == self) continue;
    const long switches = VoluntarySwitches(tid);
    if (switches > 0) sum += switches;
  }
  ::closedir(tasks);
  return sum;
}

bool WaitUntilAsleep(long tid) {
  using namespace std::chrono_literals;
  for (int attempt = 0; attempt < 10000; ++attempt) {
    std::ifstream stat(TaskFile(tid, "stat"));
    const std::string text((std::istreambuf_iterator<char>(stat)),
                           std::istreambuf_iterator<char>());
    // The state follows the command name, which is in parentheses and may hold anything.
    const std::size_t close = text.rfind(')');
    if (close != std::string::npos && close + 2 < text.size() && text[close + 2] == 'S') {
      return true;
    }
    std::this_thread::sleep_for(1ms);
  }
  return false;
}

}  // namespace pendrel_test
