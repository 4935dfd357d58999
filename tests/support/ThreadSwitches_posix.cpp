#include "tests/support/ThreadSwitches.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>  // std::remove, std::set_difference, std::sort
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

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

std::vector<long> ThreadIds() {
  std::vector<long> ids;
  DIR* tasks = ::opendir("/proc/self/task");
  if (tasks == nullptr) return ids;
  while (const dirent* entry = ::readdir(tasks)) {
    if (entry->d_name[0] != '.') ids.push_back(std::stol(entry->d_name));
  }
  ::closedir(tasks);
  std::sort(ids.begin(), ids.end());
  return ids;
}

std::vector<long> ThreadsStartedSince(const std::vector<long>& before) {
  const std::vector<long> now = ThreadIds();
  std::vector<long> started;
  std::set_difference(now.begin(), now.end(), before.begin(), before.end(),
                      std::back_inserter(started));
  return started;
}

long VoluntarySwitchesOf(const std::vector<long>& tids) {
  long sum = 0;
  for (const long tid : tids) {
    const long switches = VoluntarySwitches(tid);
    if (switches > 0) sum += switches;
  }
  return sum;
}

long VoluntarySwitchesOfOtherThreads() {
  std::vector<long> others = ThreadIds();
  others.erase(std::remove(others.begin(), others.end(), CurrentThreadId()), others.end());
  return VoluntarySwitchesOf(others);
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
