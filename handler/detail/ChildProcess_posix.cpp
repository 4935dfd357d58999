#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>  // std::min
#include <condition_variable>
#include <cstdlib>  // std::getenv
#include <cstring>  // std::strncmp, std::strchr
#include <deque>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <thread>
#include <utility>

#include "base/RetryOnEintr.h"
#include "base/SystemText.h"
#include "base/UniqueFd.h"
#include "handler/detail/ChildProcess.h"

extern char** environ;  // NOLINT: the environment handed to the handler, with one variable set

namespace CTolvane::detail {
namespace {

using Clock = std::chrono::steady_clock;
using Pendrel::base::RetryOnEintr;
using Pendrel::base::UniqueFd;

// Descriptors above this are not looked at when the kernel cannot close a range at once.
constexpr int kMaxDescriptorsToClose = 1 << 16;
// How often children are looked at when the kernel gives no descriptor to wait on.
constexpr int kPollWithoutPidFdMs = 100;

// A descriptor that becomes readable when `pid` ends (Linux 5.3 and later; close-on-exec by
// nature); -1 where the kernel has none, and the supervisor then looks every 100 ms instead.
int OpenPidFd(pid_t pid) {
#if defined(SYS_pidfd_open)
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  return -1;
#endif
}

// SIGKILL for a child that has not been collected (so its id is still its own): through its
// pidfd where there is one.
void KillChild(pid_t pid, int pidFd) {
#if defined(SYS_pidfd_send_signal)
  if (pidFd >= 0 && syscall(SYS_pidfd_send_signal, pidFd, SIGKILL, nullptr, 0) == 0) return;
#else
  (void)pidFd;
#endif
  ::kill(pid, SIGKILL);
}

CHandlerExit EndOf(int status) {
  if (WIFSIGNALED(status)) return {EHandlerEnd::Signaled, WTERMSIG(status)};
  return {EHandlerEnd::Exited, WEXITSTATUS(status)};
}

// What a child's owner learns of its end; shared with the supervisor, which fills it.
struct ExitRecord {
  std::mutex mutex;
  std::condition_variable changed;  // notified when `ended` is set
  bool ended = false;               // guarded by mutex
  CHandlerExit end;                 // guarded by mutex

  CHandlerExit Wait(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    // A look without waiting (the pool asks at every lease) makes no timed wait, which costs a
    // system call even when its time is up already.
    if (timeout <= std::chrono::milliseconds::zero()) {
      return ended ? end : CHandlerExit{EHandlerEnd::Running, 0};
    }
    if (!changed.wait_for(lock, timeout, [this] { return ended; })) {
      return {EHandlerEnd::Running, 0};
    }
    return end;
  }

  void Set(const CHandlerExit& value) {
    const std::lock_guard<std::mutex> lock(mutex);
    ended = true;
    end = value;
    changed.notify_all();
  }
};

std::mutex g_observerMutex;
std::function<void(std::uint32_t, const CHandlerExit&)> g_observer;  // guarded by g_observerMutex

void TellObserver(pid_t pid, const CHandlerExit& end) {
  const std::lock_guard<std::mutex> lock(g_observerMutex);
  if (g_observer) g_observer(static_cast<std::uint32_t>(pid), end);
}

// Everything a child needs between fork and exec, made beforehand: the child of a threaded
// process may only make async-signal-safe calls, so it allocates nothing.
struct SpawnPlan {
  std::vector<std::string> candidates;  // the program's paths to try, in order
  std::vector<std::string> argumentTexts;
  std::vector<char*> argv;
  std::vector<std::string> environmentTexts;
  std::vector<char*> envp;
  UniqueFd output;              // becomes the child's descriptors 1 and 2, when open
  bool outputToStderr = false;  // descriptor 1 becomes the host's 2
  int closeLimit = kMaxDescriptorsToClose;
  pid_t host = 0;
};

// Like execvp: every folder of PATH for a name without "/".
std::vector<std::string> ProgramCandidates(const std::string& name) {
  if (name.find('/') != std::string::npos) return {name};
  const char* path = std::getenv("PATH");
  const std::string folders = path != nullptr ? path : "/bin:/usr/bin";
  std::vector<std::string> candidates;
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = folders.find(':', start);
    std::string folder = folders.substr(start, end - start);
    if (folder.empty()) folder = ".";
    candidates.push_back(folder + "/" + name);
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return candidates;
}

void SetDescriptorAsOutput(int from, int to) {
  if (from == to) {
    ::fcntl(to, F_SETFD, 0);  // dup2 onto itself would keep close-on-exec
  } else {
    ::dup2(from, to);
  }
}

void CloseRange(unsigned first, unsigned last, int limit) {
#if defined(SYS_close_range)
  if (syscall(SYS_close_range, first, last, 0) == 0) return;
#endif
  for (unsigned fd = first; fd <= last && fd < static_cast<unsigned>(limit); ++fd) ::close(fd);
}

// The child, between fork and exec: async-signal-safe calls only. Reports a failure as its
// errno through `report` and ends with _exit(127).
[[noreturn]] void RunChild(const SpawnPlan& plan, int report) {
  // Ends with the thread that forked it, which lives as long as the library; a host that
  // ended before this line is caught by the check after it.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != plan.host) ::_exit(127);
  if (plan.output.Get() >= 0) {
    SetDescriptorAsOutput(plan.output.Get(), 1);
    SetDescriptorAsOutput(plan.output.Get(), 2);
  } else if (plan.outputToStderr) {
    ::dup2(2, 1);
  }
  // Descriptors the host opened without close-on-exec stay with the host; `report` closes
  // on exec by itself.
  const unsigned reportFd = static_cast<unsigned>(report);
  if (reportFd > 3) CloseRange(3, reportFd - 1, plan.closeLimit);
  CloseRange(reportFd + 1, ~0u, plan.closeLimit);
  // A host that ignores SIGPIPE must not pass that on; the supervision thread blocks every
  // signal, and the handler starts with none blocked.
  struct sigaction defaults {};
  defaults.sa_handler = SIG_DFL;
  ::sigaction(SIGPIPE, &defaults, nullptr);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);

  int error = ENOENT;
  bool denied = false;
  for (const std::string& candidate : plan.candidates) {
    ::execve(candidate.c_str(), plan.argv.data(), plan.envp.data());
    error = errno;
    if (error == EACCES) {
      denied = true;
    } else if (error != ENOENT && error != ENOTDIR && error != ESTALE && error != ENODEV &&
               error != ETIMEDOUT) {
      break;
    }
  }
  if (denied && (error == ENOENT || error == ENOTDIR)) error = EACCES;
  [[maybe_unused]] const auto written = ::write(report, &error, sizeof error);
  ::_exit(127);
}

// Starts the child of `plan`; called on the supervision thread. Returns 0 and the child's
// id, or the system's error number (a child that could not exec is collected here).
std::uint32_t ForkAndExec(const SpawnPlan& plan, pid_t& pid) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return static_cast<std::uint32_t>(errno);
  UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  const pid_t child = ::fork();
  if (child < 0) return static_cast<std::uint32_t>(errno);
  if (child == 0) RunChild(plan, writeEnd.Get());
  writeEnd.Reset();
  // The exec closes the child's end: nothing comes. A failed exec sends its errno.
  int error = 0;
  const auto got = RetryOnEintr([&] { return ::read(readEnd.Get(), &error, sizeof error); });
  if (got == static_cast<ssize_t>(sizeof error)) {
    int status = 0;
    RetryOnEintr([&] { return ::waitpid(child, &status, 0); });
    return static_cast<std::uint32_t>(error);
  }
  pid = child;
  return 0;
}

// The supervision thread and what it watches. The thread starts with the first child and
// lives as long as the process: the children's parent-death signal follows the thread that
// forked them, so it must not end while the host lives. It starts the children, collects
// every one that ends, tells its owner, and kills the released ones whose grace period has
// passed.
//
// Exit callbacks run on that thread under m_mutex, so that Release returns only when no
// callback of that child runs any more. A callback must not call the supervisor.
class Supervisor {
 public:
  static Supervisor& Instance() {
    // Never destroyed: a handler object may outlive the statics of this library at exit.
    alignas(Supervisor) static unsigned char storage[sizeof(Supervisor)];
    static Supervisor* const instance = new (storage) Supervisor();
    return *instance;
  }

  // Starts the child of `plan` on the supervision thread and watches it; returns 0 with its
  // id and token, or the system's error number.
  std::uint32_t Spawn(const SpawnPlan& plan, std::shared_ptr<ExitRecord> record, pid_t& pid,
                      std::uint64_t& token) {
    std::optional<std::uint32_t> result;
    std::unique_lock<std::mutex> lock(m_mutex);
    EnsureThread();
    m_tasks.push_back([&] {
      pid_t child = 0;
      const std::uint32_t error = ForkAndExec(plan, child);
      const std::lock_guard<std::mutex> taskLock(m_mutex);
      if (error == 0) {
        token = m_nextToken++;
        Entry& entry = m_entries[token];
        entry.pid = child;
        entry.pidFd.Reset(OpenPidFd(child));
        entry.record = std::move(record);
        pid = child;
      }
      result = error;
      m_taskDone.notify_all();
    });
    Wake();
    m_taskDone.wait(lock, [&] { return result.has_value(); });
    return *result;
  }

  // Sets what to call when the child ends; calls it at once if it already has.
  void SetExitCallback(std::uint64_t token, std::function<void()> onExit) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto it = m_entries.find(token);
    if (it != m_entries.end()) {
      it->second.onExit = std::move(onExit);
      return;
    }
    lock.unlock();
    onExit();
  }

  // The owner is gone: no callback any more; killed after `gracePeriod`, collected anyway.
  void Release(std::uint64_t token, std::chrono::milliseconds gracePeriod) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_entries.find(token);
    if (it == m_entries.end()) return;
    it->second.onExit = nullptr;
    it->second.killAt = Clock::now() + gracePeriod;
    Wake();
  }

 private:
  struct Entry {
    pid_t pid = 0;
    UniqueFd pidFd;
    std::shared_ptr<ExitRecord> record;
    std::function<void()> onExit;
    std::optional<Clock::time_point> killAt;  // set by Release
    bool killed = false;
  };

  Supervisor() : m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  void Wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(m_wake.Get(), &one, sizeof one);
  }

  // Called under m_mutex. The thread blocks every signal: the host's handlers never run on
  // it, and a child forked from it starts with them blocked until its exec. It is detached,
  // as nobody ever joins it. A process forked from the host without exec has no such thread
  // (only the forking thread goes on in it) and none of the host's children: it starts
  // afresh.
  void EnsureThread() {
    const pid_t self = ::getpid();
    if (m_threadProcess == self) return;
    m_entries.clear();
    m_tasks.clear();
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    std::thread([this] { Run(); }).detach();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    m_threadProcess = self;
  }

  [[noreturn]] void Run() {
    for (;;) {
      RunTasks();
      CollectAndKill();
      WaitForAChange();
    }
  }

  void RunTasks() {
    for (;;) {
      std::function<void()> task;
      {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_tasks.empty()) return;
        task = std::move(m_tasks.front());
        m_tasks.pop_front();
      }
      task();
    }
  }

  // Collects the children that have ended and kills the released ones whose time is up.
  void CollectAndKill() {
    std::vector<std::pair<pid_t, CHandlerExit>> collected;
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      const Clock::time_point now = Clock::now();
      for (auto it = m_entries.begin(); it != m_entries.end();) {
        Entry& entry = it->second;
        int status = 0;
        const pid_t result = ::waitpid(entry.pid, &status, WNOHANG);
        // ECHILD: someone else (the host) collected it; it has ended, how is not known.
        if (result == entry.pid || (result < 0 && errno == ECHILD)) {
          const CHandlerExit end =
              result == entry.pid ? EndOf(status) : CHandlerExit{EHandlerEnd::Exited, -1};
          entry.record->Set(end);
          if (entry.onExit) entry.onExit();
          collected.emplace_back(entry.pid, end);
          it = m_entries.erase(it);
          continue;
        }
        if (entry.killAt && !entry.killed && now >= *entry.killAt) {
          KillChild(entry.pid, entry.pidFd.Get());
          entry.killed = true;
        }
        ++it;
      }
    }
    for (const auto& [pid, end] : collected) TellObserver(pid, end);
  }

  // Waits for a child to end, a grace period to pass, or a wake-up (a task, a release).
  void WaitForAChange() {
    std::vector<pollfd> fds{{m_wake.Get(), POLLIN, 0}};
    int timeoutMs = -1;
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      if (!m_tasks.empty()) return;
      const Clock::time_point now = Clock::now();
      for (const auto& [token, entry] : m_entries) {
        if (entry.pidFd.Get() >= 0) {
          fds.push_back({entry.pidFd.Get(), POLLIN, 0});
        } else {
          timeoutMs =
              timeoutMs < 0 ? kPollWithoutPidFdMs : std::min(timeoutMs, kPollWithoutPidFdMs);
        }
        if (entry.killAt && !entry.killed) {
          const auto left =
              std::chrono::ceil<std::chrono::milliseconds>(*entry.killAt - now).count();
          const int leftMs = static_cast<int>(std::clamp<long long>(left, 0, 1 << 30));
          timeoutMs = timeoutMs < 0 ? leftMs : std::min(timeoutMs, leftMs);
        }
      }
    }
    if (::poll(fds.data(), fds.size(), timeoutMs) > 0 && (fds[0].revents & POLLIN)) {
      std::uint64_t count;
      [[maybe_unused]] const auto got = ::read(m_wake.Get(), &count, sizeof count);
    }
  }

  std::mutex m_mutex;
  std::condition_variable m_taskDone;         // with m_mutex
  std::deque<std::function<void()>> m_tasks;  // guarded by m_mutex
  std::map<std::uint64_t, Entry> m_entries;   // guarded by m_mutex
  std::uint64_t m_nextToken = 1;              // guarded by m_mutex
  pid_t m_threadProcess = 0;                  // guarded by m_mutex: the process whose thread runs
  UniqueFd m_wake;
};

// The environment of the host with `name`=`value` in place of any entry of that name.
std::vector<std::string> ChildEnvironment(const std::string& name, const std::string& value) {
  std::vector<std::string> texts;
  const std::string prefix = name + "=";
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, prefix.c_str(), prefix.size()) != 0) texts.emplace_back(*entry);
  }
  texts.push_back(prefix + value);
  return texts;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Opens what the child's output goes to; 0 or the system's error number.
std::uint32_t OpenOutput(const ChildOptions& options, SpawnPlan& plan) {
  switch (options.output) {
    case EChildOutput::Inherited:
      return 0;
    case EChildOutput::HostStderr:
      plan.outputToStderr = true;
      return 0;
    case EChildOutput::Discarded:
      plan.output.Reset(::open("/dev/null", O_WRONLY | O_CLOEXEC));
      break;
    case EChildOutput::File: {
      const std::string path = Pendrel::base::ToSystemText(options.outputFile);
      if (path.empty()) return ENOENT;
      plan.output.Reset(
          ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600));
      break;
    }
  }
  return plan.output.Get() >= 0 ? 0 : static_cast<std::uint32_t>(errno);
}

}  // namespace

bool EndedByKill(const CHandlerExit& end, bool outlivedGrace) {
  return outlivedGrace && end.How == EHandlerEnd::Signaled && end.Code == SIGKILL;
}

void SetCollectedObserver(std::function<void(std::uint32_t, const CHandlerExit&)> observer) {
  const std::lock_guard<std::mutex> lock(g_observerMutex);
  g_observer = std::move(observer);
}

struct ChildProcess::Impl {
  pid_t pid = 0;
  std::uint64_t token = 0;  // the supervisor's, once started
  bool released = false;
  std::shared_ptr<ExitRecord> record = std::make_shared<ExitRecord>();
};

ChildProcess::ChildProcess() : m_impl(std::make_unique<Impl>()) {}

ChildProcess::~ChildProcess() { Release(kDefaultGracePeriod); }

std::uint32_t ChildProcess::Start(const std::wstring& /*commandLine*/,
                                  const std::vector<std::wstring>& arguments,
                                  const ChildOptions& options) {
  if (arguments.empty()) return EINVAL;
  SpawnPlan plan;
  for (const std::wstring& argument : arguments) {
    plan.argumentTexts.push_back(Pendrel::base::ToSystemText(argument));
  }
  plan.argv = Pointers(plan.argumentTexts);
  plan.candidates = ProgramCandidates(plan.argumentTexts[0]);
  plan.environmentTexts =
      ChildEnvironment(kPipeFolderVariable, Pendrel::base::ToSystemText(options.pipeFolder));
  plan.envp = Pointers(plan.environmentTexts);
  if (const std::uint32_t error = OpenOutput(options, plan); error != 0) return error;
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
    plan.closeLimit = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, kMaxDescriptorsToClose));
  }
  plan.host = ::getpid();
  return Supervisor::Instance().Spawn(plan, m_impl->record, m_impl->pid, m_impl->token);
}

std::uint32_t ChildProcess::Id() const { return static_cast<std::uint32_t>(m_impl->pid); }

void ChildProcess::WatchExit(std::function<void()> onExit) {
  if (m_impl->token != 0 && !m_impl->released) {
    Supervisor::Instance().SetExitCallback(m_impl->token, std::move(onExit));
  }
}

CHandlerExit ChildProcess::WaitForExit(std::chrono::milliseconds timeout) {
  if (m_impl->token == 0) return {};
  return m_impl->record->Wait(timeout);
}

std::function<CHandlerExit(std::chrono::milliseconds)> ChildProcess::ExitWaiter() const {
  if (m_impl->token == 0) return [](std::chrono::milliseconds) { return CHandlerExit(); };
  return [record = m_impl->record](std::chrono::milliseconds timeout) {
    return record->Wait(timeout);
  };
}

void ChildProcess::Release(std::chrono::milliseconds gracePeriod) {
  if (m_impl->released) return;
  m_impl->released = true;
  if (m_impl->token != 0) Supervisor::Instance().Release(m_impl->token, gracePeriod);
}

}  // namespace CTolvane::detail
