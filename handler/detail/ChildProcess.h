// A started handler process and its supervision. While its owner holds it, the library
// watches whether the process has ended (so that a handler that dies before connecting fails
// Start at once) and can say how it ended. When the owner lets go (Release), the process is
// given a grace period to end by itself, then killed, and collected either way, on a
// supervision thread: the owner does not wait. Every handler also ends with its host, even a
// host that is killed.
//
// One implementation per platform: ChildProcess_win.cpp (CreateProcessW into a job object
// that kills its processes when the host's handle to it closes; the process handle watched
// by the thread pool), ChildProcess_posix.cpp (fork and exec on one supervision thread that
// lives as long as the library, so that the parent-death signal set in the child fires only
// when the host ends; the same thread collects every ended child, so none is left as a
// zombie, and kills those whose grace period has passed).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "handler/CHandler.h"
#include "protocol/HandlerProtocol.h"

namespace CTolvane::detail {

// The name of the environment variable that tells a handler the folder of its pipe.
using Pendrel::protocol::kPipeFolderVariable;

// How a child is started beyond its command line.
struct ChildOptions {
  EChildOutput output = EChildOutput::Inherited;
  std::wstring outputFile;  // EChildOutput::File: appended to, created when missing
  std::wstring pipeFolder;  // the value of kPipeFolderVariable in the child's environment
};

class ChildProcess {
 public:
  static constexpr std::chrono::milliseconds kDefaultGracePeriod{5000};

  ChildProcess();
  // Release(kDefaultGracePeriod), unless released before.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts the program. Windows passes `commandLine` to CreateProcessW (no application
  // name, so the program is found as the command line names it); other systems start
  // `arguments[0]` with `arguments` as its argument vector, searching PATH when the name
  // has no "/". The child gets the host's environment with kPipeFolderVariable set to
  // `options.pipeFolder`, and its output as `options` say; no other handle or descriptor of
  // the host is inherited. Returns 0, or the system's error number when the program (or its
  // output file) could not be started. Called once.
  std::uint32_t Start(const std::wstring& commandLine, const std::vector<std::wstring>& arguments,
                      const ChildOptions& options);

  // The process id; 0 before a successful Start.
  std::uint32_t Id() const;

  // Calls `onExit` once, on another thread, when the process has ended (soon, if it has
  // already). At most one watch per process; call after a successful Start. Release waits
  // for a callback that is running.
  void WatchExit(std::function<void()> onExit);

  // How the process ended, waiting up to `timeout` for it to end. None before a successful
  // Start or after Release. Any thread.
  CHandlerExit WaitForExit(std::chrono::milliseconds timeout);

  // A wait for the end of this process (as WaitForExit) that stays usable after Release and
  // after this object is gone. Call after Start; any thread may call the wait.
  std::function<CHandlerExit(std::chrono::milliseconds)> ExitWaiter() const;

  // Hands the process to supervision: the exit watch ends, and a process that has not
  // ended within `gracePeriod` is killed (SIGKILL, TerminateProcess); it is collected
  // either way. Returns at once. Later calls do nothing. Owner's thread.
  void Release(std::chrono::milliseconds gracePeriod);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

// Whether `end` is how the supervision's kill ends a released process, given whether the
// process was seen to end no sooner than its grace period after Release (`outlivedGrace`).
// Linux: SIGKILL after the grace period. Windows: TerminateProcess leaves exit code 1, which
// a handler could also give itself, so there it counts only after the grace period: by then
// the process would have been killed anyway.
bool EndedByKill(const CHandlerExit& end, bool outlivedGrace);

// Tests: while set, `observer` is called on the supervision thread with the id and the end
// of every child as it is collected after Release (or, on Linux, also before). Pass an
// empty function to stop. Any thread.
void SetCollectedObserver(std::function<void(std::uint32_t id, const CHandlerExit& end)> observer);

}  // namespace CTolvane::detail
