#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "base/SystemText.h"
#include "base/UniqueFd.h"
#include "handler/detail/ChildProcess.h"

extern char** environ;  // NOLINT: the environment handed to the handler as it is

namespace CTolvane::detail {
namespace {

using Pendrel::base::UniqueFd;

// A descriptor that becomes readable when `pid` ends (Linux 5.3 and later; close-on-exec by
// nature); -1 where the kernel has none, and the reaper then looks every 100 ms instead.
int OpenPidFd(pid_t pid) {
#if defined(SYS_pidfd_open)
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  return -1;
#endif
}

// Collects every handler this library starts once it has ended, so no child is left as a
// zombie, and tells the child's owner, if it is still interested. One thread serves all
// children while any is alive and ends when none is left.
//
// The exit callbacks run on the reaper's thread under m_mutex, so that Forget returns only
// when no callback of that child runs any more. A callback must not call the reaper.
class Reaper {
 public:
  static Reaper& Instance() {
    // Never destroyed: a handler object may outlive the statics of this library at exit.
    alignas(Reaper) static unsigned char storage[sizeof(Reaper)];
    static Reaper* const instance = new (storage) Reaper();
    return *instance;
  }

  // Registers a child just started; returns the token for the calls below.
  std::uint64_t Watch(pid_t pid) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::uint64_t token = m_nextToken++;
    Entry& entry = m_entries[token];
    entry.pid = pid;
    entry.pidFd.Reset(OpenPidFd(pid));
    EnsureThread();
    Wake();
    return token;
  }

  // Sets what to call when the child ends; calls it at once if it already has.
  void SetExitCallback(std::uint64_t token, std::function<void()> onExit) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto it = m_entries.find(token);
    if (it == m_entries.end()) return;
    if (it->second.ended) {
      m_entries.erase(it);
      lock.unlock();
      onExit();
      return;
    }
    it->second.onExit = std::move(onExit);
  }

  // The owner is gone: no callback any more, but the child is still collected.
  void Forget(std::uint64_t token) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_entries.find(token);
    if (it == m_entries.end()) return;
    if (it->second.ended) {
      m_entries.erase(it);
    } else {
      it->second.onExit = nullptr;
      it->second.forgotten = true;
    }
  }

 private:
  struct Entry {
    pid_t pid = 0;
    UniqueFd pidFd;
    std::function<void()> onExit;
    bool ended = false;      // collected, waiting for its owner to ask
    bool forgotten = false;  // the owner is gone
  };

  Reaper() : m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  void Wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = write(m_wake.Get(), &one, sizeof one);
  }

  // Called under m_mutex.
  void EnsureThread() {
    if (m_running) return;
    m_running = true;
    m_thread = std::thread([this] { Run(); });
  }

  // Waits for the pidfds (or 100 ms without them) and the wake-up descriptor.
  void WaitForAChange() {
    std::vector<pollfd> fds{{m_wake.Get(), POLLIN, 0}};
    bool polling = false;
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      for (const auto& [token, entry] : m_entries) {
        if (entry.ended) continue;
        if (entry.pidFd.Get() >= 0) {
          fds.push_back({entry.pidFd.Get(), POLLIN, 0});
        } else {
          polling = true;
        }
      }
    }
    if (poll(fds.data(), fds.size(), polling ? 100 : -1) > 0 && (fds[0].revents & POLLIN)) {
      std::uint64_t count;
      [[maybe_unused]] const auto read = ::read(m_wake.Get(), &count, sizeof count);
    }
  }

  // Collects the children that have ended; false when none is left to wait for.
  bool CollectEnded() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    bool anyAlive = false;
    for (auto it = m_entries.begin(); it != m_entries.end();) {
      Entry& entry = it->second;
      if (!entry.ended) {
        int status = 0;
        const pid_t result = waitpid(entry.pid, &status, WNOHANG);
        // ECHILD: someone else (the host) collected it; it has ended all the same.
        entry.ended = result == entry.pid || (result < 0 && errno == ECHILD);
        if (entry.ended) {
          entry.pidFd.Reset();
          if (entry.onExit) {
            entry.onExit();
            entry.forgotten = true;  // told once; nobody needs the entry any more
          }
        }
      }
      if (entry.ended && entry.forgotten) {
        it = m_entries.erase(it);
        continue;
      }
      anyAlive = anyAlive || !entry.ended;
      ++it;
    }
    if (!anyAlive) {
      m_running = false;
      // The thread ends now and nobody may come to join it (a host often starts no handler
      // again): detached, it leaves nothing behind. Under m_mutex, m_thread is this thread.
      m_thread.detach();
    }
    return anyAlive;
  }

  void Run() {
    while (CollectEnded()) WaitForAChange();
  }

  std::mutex m_mutex;
  std::map<std::uint64_t, Entry> m_entries;  // guarded by m_mutex
  std::uint64_t m_nextToken = 1;             // guarded by m_mutex
  bool m_running = false;                    // guarded by m_mutex
  std::thread m_thread;                      // guarded by m_mutex
  UniqueFd m_wake;
};

// Spawn settings that leave nothing of the host in the handler but the environment, the
// standard streams and the working folder.
class SpawnSettings {
 public:
  SpawnSettings() {
    posix_spawn_file_actions_init(&m_actions);
    posix_spawnattr_init(&m_attributes);
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
    // Descriptors the host opened without close-on-exec stay with the host as well.
    posix_spawn_file_actions_addclosefrom_np(&m_actions, 3);
#endif
    // A host that blocks signals or ignores SIGPIPE must not pass that on.
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&m_attributes, &none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&m_attributes, &defaults);
    posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~SpawnSettings() {
    posix_spawnattr_destroy(&m_attributes);
    posix_spawn_file_actions_destroy(&m_actions);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  const posix_spawn_file_actions_t* Actions() const { return &m_actions; }
  const posix_spawnattr_t* Attributes() const { return &m_attributes; }

 private:
  posix_spawn_file_actions_t m_actions;
  posix_spawnattr_t m_attributes;
};

}  // namespace

struct ChildProcess::Impl {
  pid_t pid = 0;
  std::uint64_t token = 0;  // the reaper's, once started
};

ChildProcess::ChildProcess() : m_impl(std::make_unique<Impl>()) {}

ChildProcess::~ChildProcess() {
  if (m_impl->token != 0) Reaper::Instance().Forget(m_impl->token);
}

std::uint32_t ChildProcess::Start(const std::wstring& /*commandLine*/,
                                  const std::vector<std::wstring>& arguments) {
  if (arguments.empty()) return EINVAL;
  std::vector<std::string> texts;
  texts.reserve(arguments.size());
  for (const std::wstring& argument : arguments) {
    texts.push_back(Pendrel::base::ToSystemText(argument));
  }
  std::vector<char*> argv;
  for (std::string& text : texts) argv.push_back(text.data());
  argv.push_back(nullptr);

  const SpawnSettings settings;
  pid_t pid = 0;
  const int error =
      posix_spawnp(&pid, argv[0], settings.Actions(), settings.Attributes(), argv.data(), environ);
  if (error != 0) return static_cast<std::uint32_t>(error);
  m_impl->pid = pid;
  m_impl->token = Reaper::Instance().Watch(pid);
  return 0;
}

std::uint32_t ChildProcess::Id() const { return static_cast<std::uint32_t>(m_impl->pid); }

void ChildProcess::WatchExit(std::function<void()> onExit) {
  if (m_impl->token != 0) Reaper::Instance().SetExitCallback(m_impl->token, std::move(onExit));
}

}  // namespace CTolvane::detail
