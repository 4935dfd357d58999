// CTolvane::CHandlerPool: a managed set of processes of one handler program.
//
// A pool keeps MinHandlers handlers started and grows to MaxHandlers when requests wait. A
// request borrows one handler exclusively (CHandlerLease) and gives it back by letting go of
// the lease. A handler goes back to the pool only when its exchanges succeeded (LastError()
// is Ok) and it has served fewer than MaxRequests leases; otherwise it is retired: its pipe
// is closed, it gets StopGracePeriodMs to end, then it is killed and collected. A retired
// handler is replaced in the background while fewer than MinHandlers remain (or callers
// wait). Idle handlers above MinHandlers are stopped after IdleMs unused. An idle handler
// whose process has ended is retired when a borrower would get it, and the borrower gets
// another.
//
// Waiting for a free handler is bounded: at most QueueLength callers wait at once, each at
// most QueueWaitMs, served first come, first served. A session takes a handler out of the
// pool for the session's life (TakeForSession): the pool does not count it as idle or busy
// nor toward MinHandlers (it counts toward MaxHandlers), and letting go of that lease always
// retires the handler.
//
// A program that cannot be started is not restarted in a loop: after a failed start the
// next one waits (100 ms, doubling to 10 s, back to 100 ms after a success). Meanwhile a
// pool without a handler answers borrowers with StartFailed at once, and callers already
// waiting get StartFailed as soon as the start they waited for fails.
//
// Threads: every member may be called from any number of threads at once, except that the
// destructor must not race with other calls. Nothing polls: waiters sleep until a handler
// is given back, started or retired, or their wait ends. Starting, retiring, reaping and
// collecting handlers run on three threads of the pool's own (joined by the destructor),
// never on a borrower's. No handler process is left behind: Stop and the destructor wait for
// every process that is not lent out, and a handler also ends with its host (CHandler.h).
//
// Example:
//   CTolvane::CHandlerPoolSettings settings;
//   settings.Program = L"/usr/local/bin/pendrel-text-stats";
//   CTolvane::CHandlerPool pool(settings);
//   CTolvane::CHandlerLease lease;
//   if (pool.Borrow(lease) == CTolvane::EPoolWait::Ok) {
//     Pendrel::CResponse response;
//     lease->HandleRequest(request, response);  // a failure retires the handler
//   }  // the lease ends: the handler goes back to the pool
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "handler/CHandler.h"
#include "message/Export.h"

namespace CTolvane {

// What one pool is made of. Every handler is started with Start(Program, Mode, Arguments).
// MaxHandlers is at least 1 and MinHandlers at most MaxHandlers (larger values are taken as
// those). A CHandlerPool keeps its own copy: later changes to the caller's do nothing.
struct CHandlerPoolSettings {
  std::wstring Program;
  int Mode = 0;
  std::wstring Arguments;
  std::uint32_t MinHandlers = 1;        // kept started (and started at once)
  std::uint32_t MaxHandlers = 4;        // at most this many handlers at once, sessions included
                                        // (retired ones on their way out are not counted)
  std::uint32_t MaxRequests = 0;        // leases a handler serves before it is retired; 0: no limit
  std::uint32_t IdleMs = 60000;         // an idle handler above MinHandlers stops after this
  std::uint32_t QueueLength = 256;      // callers that may wait for a handler at once
  std::uint32_t QueueWaitMs = 30000;    // how long one caller waits for a handler
  std::int32_t ResponseTimeoutS = 120;  // CHandler::ResponseTimeoutS of every handler
  std::uint32_t StopGracePeriodMs = 5000;  // CHandler::StopGracePeriodMs: a retired handler's
                                           // time to end by itself before it is killed
  EChildOutput ChildOutput = EChildOutput::Inherited;  // CHandler::ChildOutput
  std::wstring ChildOutputFile;                        // CHandler::ChildOutputFile
};

// Why Borrow or TakeForSession gave no handler.
enum class EPoolWait : std::int32_t {
  Ok = 0,           // the lease holds a started, connected handler
  QueueFull = 1,    // QueueLength callers were already waiting
  TimedOut = 2,     // no handler became free within QueueWaitMs
  Stopping = 3,     // the pool is stopping or stopped
  StartFailed = 4,  // the pool has no handler and the last start failed
};

// What a pool holds and has done, for health checks and metrics.
struct CHandlerPoolStats {
  std::uint32_t Idle = 0;           // started handlers waiting for a borrower
  std::uint32_t Busy = 0;           // handlers lent out by Borrow
  std::uint32_t Sessions = 0;       // handlers taken out by TakeForSession
  std::uint32_t Starting = 0;       // handlers being started
  std::uint32_t Waiting = 0;        // callers waiting for a handler
  std::uint32_t Retiring = 0;       // retired handlers (and failed starts) whose process has not
                                    // been seen to end yet
  std::uint64_t Started = 0;        // handlers started successfully
  std::uint64_t StartFailures = 0;  // starts that failed
  std::uint64_t Retired = 0;        // retired handlers whose process has ended (failed, worn out,
                                    // idle, session over, pool stopped)
  std::uint64_t Killed = 0;         // of those, the ones the library had to kill after the grace
                             // period (Linux: ended by SIGKILL; Windows: ended with exit code 1
                             // after the grace period, as TerminateProcess ends them)
  std::uint64_t Leases = 0;  // leases given out (Borrow and TakeForSession)
};

class CHandlerPool;

// One borrowed handler. Letting go of the lease (destruction, move-assignment, Release)
// gives the handler back to its pool or retires it, as described above; it never waits for
// a process. An empty lease holds nothing. A lease should not outlive its pool; one that
// does retires its handler on its own thread when it ends (the handler is let go of as
// CHandler's destructor does). One lease is used by one thread at a time; the handler it
// holds is the borrower's alone until the lease ends.
class PENDREL_API CHandlerLease {
 public:
  CHandlerLease() noexcept;
  CHandlerLease(CHandlerLease&& other) noexcept;
  CHandlerLease& operator=(CHandlerLease&& other) noexcept;
  CHandlerLease(const CHandlerLease&) = delete;
  CHandlerLease& operator=(const CHandlerLease&) = delete;
  ~CHandlerLease();

  explicit operator bool() const noexcept;
  // The borrowed handler; only on a lease that holds one.
  CHandler& operator*() const noexcept;
  CHandler* operator->() const noexcept;

  // Marks the handler not to be given back: releasing the lease retires it.
  void Retire() noexcept;
  // Gives the handler back (or retires it) now; the lease is empty afterwards.
  void Release() noexcept;

 private:
  friend class CHandlerPool;
  struct State;
  std::unique_ptr<State> m_state;
};

class PENDREL_API CHandlerPool {
 public:
  // Starts MinHandlers handlers in the background; returns without waiting for them.
  explicit CHandlerPool(CHandlerPoolSettings settings);
  CHandlerPool(const CHandlerPool&) = delete;
  CHandlerPool& operator=(const CHandlerPool&) = delete;
  // Stop(0), then ends the pool's threads. Handlers still lent out are retired when their
  // leases end, on the threads that end them. Must not run while other members do.
  ~CHandlerPool();

  // Waits for a free handler (starting one when the pool may grow) and lends it into
  // `lease`, after letting go of what `lease` held. Returns Ok, or QueueFull, TimedOut,
  // Stopping or StartFailed (see EPoolWait) with the lease left empty. Any thread.
  EPoolWait Borrow(CHandlerLease& lease);
  // As Borrow, but the handler leaves the pool for good: for a session's life.
  // Any thread.
  EPoolWait TakeForSession(CHandlerLease& lease);

  // True when the pool has a started handler (idle or busy) or may start one and its last
  // start did not fail; false once stopping. Any thread.
  bool CanServe();
  // A snapshot of the counts. Any thread.
  CHandlerPoolStats Stats();
  // Waits up to `timeoutMs` milliseconds until `condition` holds for the pool's counts, checking
  // it at once and whenever they change (nothing polls); whether it held. `condition` runs
  // under the pool's lock and must not call the pool. Any thread; for hosts waiting for their
  // pools to be ready, and for tests.
  bool WaitForStats(const std::function<bool(const CHandlerPoolStats&)>& condition,
                    std::uint32_t timeoutMs);
  const CHandlerPoolSettings& Settings() const noexcept;

  // Refuses new borrowers (they get Stopping at once, waiters too), waits up to `drainMs`
  // milliseconds for the leases lent out to end, then stops every handler (grace, then
  // kill) and waits for their processes to end (a start in progress is waited for and its
  // handler stopped too). Handlers still lent out when the drain time is over are retired
  // when their leases end (and end with the host at the latest). Later calls wait the same
  // way. Any thread, but not one that holds a lease of this pool with a drain time to spare.
  void Stop(std::uint32_t drainMs);

 private:
  friend class CHandlerLease;
  EPoolWait Lend(CHandlerLease& lease, bool session);

  struct State;
  std::shared_ptr<State> m_state;
};

}  // namespace CTolvane
