// A started handler process. The library never waits for a handler to finish and never
// ends one: a handler learns that it is done when its pipe closes. What the library does
// watch is whether the process has ended, so that a handler that dies before connecting
// fails Start at once instead of after the connection time limit.
//
// One implementation per platform: ChildProcess_win.cpp (CreateProcessW, the process
// handle watched by the thread pool), ChildProcess_posix.cpp (posix_spawnp, a pidfd
// watched by one reaper thread that also collects every ended child, so none is left as a
// zombie, whether or not its owner still exists).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CTolvane::detail {

class ChildProcess {
 public:
  ChildProcess();
  // Stops watching (waiting for a running exit callback to finish); the process runs on.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts the program. Windows passes `commandLine` to CreateProcessW (no application
  // name, so the program is found as the command line names it); other systems start
  // `arguments[0]` with `arguments` as its argument vector, searching PATH when the name
  // has no "/". No handle or descriptor of this process is inherited. Returns 0, or the
  // system's error number when the program could not be started.
  std::uint32_t Start(const std::wstring& commandLine, const std::vector<std::wstring>& arguments);

  // The process id; 0 before a successful Start.
  std::uint32_t Id() const;

  // Calls `onExit` once, on another thread, when the process has ended (soon, if it has
  // already). At most one watch per process; call after a successful Start.
  void WatchExit(std::function<void()> onExit);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace CTolvane::detail
