#include "handler/CHandlerPool.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "handler/detail/ChildProcess.h"     // EndedByKill
#include "handler/detail/HandlerAccess.h"    // a retired handler's end, waited for later
#include "handler/detail/HandlerSettings.h"  // the constructing thread's settings, for starts

namespace CTolvane {
namespace detail {
// Internal linkage for all of it: nothing of the pool's insides enters the export table, not
// even through the templates instantiated with its types.
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A program that fails to start is tried again after this, doubling up to the longest.
constexpr milliseconds kFirstStartBackoff{100};
constexpr milliseconds kLongestStartBackoff{10000};
// How long past its grace period a retired handler's end is waited for: the kill and the
// collection (Windows gives a killed process up to 10 s to be gone).
constexpr milliseconds kKillWait{15000};

// One handler held by the pool, lent out in a lease or on its way out.
struct PoolSlot {
  CHandler handler;
  std::uint32_t leases = 0;     // leases given out on it
  Clock::time_point idleSince;  // when it last became idle
};

// Everything a pool is, shared by the pool object and its leases (so that a lease that
// outlives its pool still finds where to give its handler back).
//
// Threads: the starter starts handlers one at a time; the retirer lets go of retired handlers
// at once (the pipe closes, the grace period begins) and reaps idle ones; the collector waits
// for the ends of the processes let go of, first to last. Retired handlers are let go of in
// the order they come and all share one grace period, so waiting for them in that order
// delays no end beyond its own kill.
class PoolCore {
 public:
  explicit PoolCore(CHandlerPoolSettings settings)
      : m_settings(std::move(settings)),
        m_max(std::max<std::uint32_t>(m_settings.MaxHandlers, 1)),
        m_min(std::min(m_settings.MinHandlers, m_max)) {
    if (const HandlerSettings* scoped = ThreadHandlerSettings()) {
      m_startSettings = *scoped;
      m_startSettings.pipeNames.clear();  // taken once, by one handler: not for a pool
    }
  }
  PoolCore(const PoolCore&) = delete;
  PoolCore& operator=(const PoolCore&) = delete;

  const CHandlerPoolSettings& Settings() const noexcept { return m_settings; }

  // Throws what std::thread throws, with no thread left running. The starter comes last, so
  // that nothing has been started when a thread cannot be.
  void StartThreads() {
    try {
      m_collector = std::thread([this] { RunCollector(); });
      m_retirer = std::thread([this] { RunRetirer(); });
      m_starter = std::thread([this] { RunStarter(); });
    } catch (...) {
      {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
      }
      JoinThreads();
      throw;
    }
  }

  // Ends the threads once what they hold is done; later returns retire on their own thread.
  void JoinThreads() {
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_quit = true;
      m_starterWake.notify_all();
      m_retirerWake.notify_all();
      m_collectorWake.notify_all();
    }
    if (m_starter.joinable()) m_starter.join();
    if (m_retirer.joinable()) m_retirer.join();
    if (m_collector.joinable()) m_collector.join();
  }

  EPoolWait Lend(bool session, std::unique_ptr<PoolSlot>& out) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_stopping) return EPoolWait::Stopping;
    while (!m_idle.empty()) {
      std::unique_ptr<PoolSlot> slot = std::move(m_idle.back());
      m_idle.pop_back();
      // A handler that died while idle would fail the borrower's first exchange.
      if (slot->handler.GetHandlerExit(0).How != EHandlerEnd::Running) {
        Retire(std::move(slot), true);
        continue;
      }
      CountLease(*slot, session);
      out = std::move(slot);
      m_changed.notify_all();
      return EPoolWait::Ok;
    }
    if (StartHopeless(Clock::now())) return EPoolWait::StartFailed;
    if (m_waiters.size() >= m_settings.QueueLength) return EPoolWait::QueueFull;

    Waiter waiter(session);
    m_waiters.push_back(&waiter);
    m_starterWake.notify_all();
    m_changed.notify_all();
    const Clock::time_point deadline = Clock::now() + milliseconds(m_settings.QueueWaitMs);
    while (!waiter.done) {
      if (waiter.wake.wait_until(lock, deadline) == std::cv_status::timeout && !waiter.done) {
        m_waiters.erase(std::find(m_waiters.begin(), m_waiters.end(), &waiter));
        m_changed.notify_all();
        return EPoolWait::TimedOut;
      }
    }
    if (waiter.result == EPoolWait::Ok) out = std::move(waiter.slot);
    return waiter.result;
  }

  // A lease ends: the handler goes back to the pool or is retired.
  void TakeBack(std::unique_ptr<PoolSlot> slot, bool session, bool retire) {
    std::unique_lock<std::mutex> lock(m_mutex);
    --(session ? m_sessions : m_busy);
    m_changed.notify_all();
    if (m_quit) {
      // The pool's threads are gone: let go here, as CHandler's destructor does.
      lock.unlock();
      slot.reset();
      return;
    }
    const std::uint32_t maxRequests = m_settings.MaxRequests;
    const bool keep = !session && !retire && !m_stopping && slot->handler.LastError() == Ok &&
                      (maxRequests == 0 || slot->leases < maxRequests);
    if (keep) {
      Provide(std::move(slot));
    } else {
      Retire(std::move(slot), true);
    }
  }

  bool CanServe() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stopping) return false;
    if (!m_idle.empty() || m_busy > 0) return true;
    return !m_lastStartFailed && (m_starting > 0 || Total() < m_max);
  }

  CHandlerPoolStats Stats() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return StatsLocked();
  }

  bool WaitForStats(const std::function<bool(const CHandlerPoolStats&)>& condition,
                    milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] { return condition(StatsLocked()); });
  }

  void Stop(milliseconds drain) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_stopping) {
      m_stopping = true;
      FailWaiters(EPoolWait::Stopping);
      m_starterWake.notify_all();
      m_retirerWake.notify_all();
      m_changed.notify_all();
    }
    m_changed.wait_for(lock, drain, [this] { return m_busy == 0 && m_sessions == 0; });
    while (!m_idle.empty()) {
      Retire(std::move(m_idle.front()), true);
      m_idle.pop_front();
    }
    // Returns while stopping retire too, so no handler becomes idle again; the starter
    // retires what a start in progress brings.
    m_changed.wait(lock, [this] { return m_starting == 0 && m_outgoing == 0 && m_idle.empty(); });
  }

 private:
  struct Waiter {
    explicit Waiter(bool forSession) : session(forSession) {}
    const bool session;
    std::condition_variable wake;  // with m_mutex
    bool done = false;             // guarded by m_mutex, as the two below
    EPoolWait result = EPoolWait::TimedOut;
    std::unique_ptr<PoolSlot> slot;
  };

  // A handler let go of, whose process is on its way out.
  struct Ending {
    std::function<CHandlerExit(milliseconds)> waitForExit;  // empty: no process
    Clock::time_point letGo;
    milliseconds grace{0};
    bool counted = true;  // a retired handler (not a failed start)
  };

  // Under m_mutex, all of the following.
  std::size_t InPool() const { return m_idle.size() + m_busy + m_starting; }
  std::size_t Total() const { return InPool() + m_sessions; }

  CHandlerPoolStats StatsLocked() const {
    CHandlerPoolStats stats;
    stats.Idle = static_cast<std::uint32_t>(m_idle.size());
    stats.Busy = m_busy;
    stats.Sessions = m_sessions;
    stats.Starting = m_starting;
    stats.Waiting = static_cast<std::uint32_t>(m_waiters.size());
    stats.Retiring = m_outgoing;
    stats.Started = m_started;
    stats.StartFailures = m_startFailures;
    stats.Retired = m_retired;
    stats.Killed = m_killed;
    stats.Leases = m_leases;
    return stats;
  }

  // How many handlers the pool should start now: up to MinHandlers in the pool, and one for
  // every waiting caller that no start in progress will serve, within MaxHandlers.
  std::size_t StartsWanted() const {
    if (m_stopping || m_quit || Total() >= m_max) return 0;
    const std::size_t inPool = InPool();
    const std::size_t forMin = inPool < m_min ? m_min - inPool : 0;
    const std::size_t served = static_cast<std::size_t>(m_starting) + m_idle.size();
    const std::size_t forWaiters = m_waiters.size() > served ? m_waiters.size() - served : 0;
    return std::min(std::max(forMin, forWaiters), m_max - Total());
  }

  // No handler to give, none being started, and the next start not due: a borrower would
  // wait for nothing.
  bool StartHopeless(Clock::time_point now) const {
    return m_lastStartFailed && m_idle.empty() && m_busy == 0 && m_starting == 0 &&
           now < m_nextStartAt;
  }

  void CountLease(PoolSlot& slot, bool session) {
    ++slot.leases;
    ++m_leases;
    ++(session ? m_sessions : m_busy);
    if (session) m_starterWake.notify_all();  // it left the pool: MinHandlers may want another
  }

  // A started handler that is free: to the first waiting caller, else idle.
  void Provide(std::unique_ptr<PoolSlot> slot) {
    m_changed.notify_all();
    if (!m_waiters.empty()) {
      Waiter& waiter = *m_waiters.front();
      m_waiters.pop_front();
      CountLease(*slot, waiter.session);
      waiter.slot = std::move(slot);
      waiter.result = EPoolWait::Ok;
      waiter.done = true;
      waiter.wake.notify_one();
      return;
    }
    slot->idleSince = Clock::now();
    m_idle.push_back(std::move(slot));
    // A retirer that waits for the oldest idle handler's deadline needs no word of handlers
    // that become idle after it: their deadlines come later. So the handler given back after
    // every exchange wakes it only when it sleeps without a deadline while the pool holds
    // more than MinHandlers.
    if (m_idle.size() + m_busy > m_min && !m_retirerTiming) {
      m_retirerWake.notify_all();
    }
  }

  // Hands `slot` to the retirer; `counted`: a retired handler, not a failed start.
  void Retire(std::unique_ptr<PoolSlot> slot, bool counted) {
    m_toRetire.emplace_back(std::move(slot), counted);
    ++m_outgoing;
    m_retirerWake.notify_all();
    m_starterWake.notify_all();  // a replacement may be wanted
    m_changed.notify_all();
  }

  void FailWaiters(EPoolWait result) {
    for (Waiter* waiter : m_waiters) {
      waiter->result = result;
      waiter->done = true;
      waiter->wake.notify_one();
    }
    m_waiters.clear();
    m_changed.notify_all();
  }

  bool StartOne(CHandler& handler) {
    const ScopedHandlerSettings scope(m_startSettings);
    handler.ResponseTimeoutS = m_settings.ResponseTimeoutS;
    handler.StopGracePeriodMs = m_settings.StopGracePeriodMs;
    handler.ChildOutput = m_settings.ChildOutput;
    handler.ChildOutputFile = m_settings.ChildOutputFile;
    return handler.Start(m_settings.Program, m_settings.Mode, m_settings.Arguments) == Ok;
  }

  void RunStarter() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
      if (m_stopping || m_quit) return;
      if (StartsWanted() == 0) {
        m_starterWake.wait(lock);
        continue;
      }
      if (Clock::now() < m_nextStartAt) {
        m_starterWake.wait_until(lock, m_nextStartAt);
        continue;
      }
      ++m_starting;
      m_changed.notify_all();
      lock.unlock();
      auto slot = std::make_unique<PoolSlot>();
      const bool started = StartOne(slot->handler);
      lock.lock();
      --m_starting;
      if (started) {
        ++m_started;
        m_lastStartFailed = false;
        m_backoff = kFirstStartBackoff;
        m_nextStartAt = Clock::time_point();
        if (m_stopping) {
          Retire(std::move(slot), true);
        } else {
          Provide(std::move(slot));
        }
      } else {
        ++m_startFailures;
        m_lastStartFailed = true;
        m_nextStartAt = Clock::now() + m_backoff;
        m_backoff = std::min(m_backoff * 2, kLongestStartBackoff);
        // A process that started but never connected is let go of and collected too.
        Retire(std::move(slot), false);
        if (m_idle.empty() && m_busy == 0) FailWaiters(EPoolWait::StartFailed);
      }
      m_changed.notify_all();
    }
  }

  void RunRetirer() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
      if (!m_toRetire.empty()) {
        std::deque<std::pair<std::unique_ptr<PoolSlot>, bool>> batch;
        batch.swap(m_toRetire);
        lock.unlock();
        std::vector<Ending> endings;
        endings.reserve(batch.size());
        for (auto& [slot, counted] : batch) {
          Ending ending;
          ending.waitForExit = HandlerAccess::ExitWaiter(slot->handler);
          ending.grace = milliseconds(slot->handler.StopGracePeriodMs);
          ending.counted = counted;
          ending.letGo = Clock::now();
          slot.reset();  // the pipe closes; the grace period, then the kill, are supervised
          endings.push_back(std::move(ending));
        }
        lock.lock();
        for (Ending& ending : endings) m_ending.push_back(std::move(ending));
        m_collectorWake.notify_all();
        continue;
      }
      if (m_quit) return;
      if (!m_stopping && !m_idle.empty() && m_idle.size() + m_busy > m_min) {
        const Clock::time_point deadline =
            m_idle.front()->idleSince + milliseconds(m_settings.IdleMs);
        if (Clock::now() >= deadline) {
          Retire(std::move(m_idle.front()), true);
          m_idle.pop_front();
        } else {
          m_retirerTiming = true;
          m_retirerWake.wait_until(lock, deadline);
          m_retirerTiming = false;
        }
        continue;
      }
      m_retirerWake.wait(lock);
    }
  }

  void RunCollector() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
      if (m_ending.empty()) {
        if (m_quit && m_outgoing == 0) return;
        m_collectorWake.wait(lock);
        continue;
      }
      Ending ending = std::move(m_ending.front());
      m_ending.pop_front();
      lock.unlock();
      CHandlerExit end;
      bool outlivedGrace = false;
      if (ending.waitForExit) {
        const auto left =
            std::chrono::ceil<milliseconds>(ending.letGo + ending.grace + kKillWait - Clock::now());
        end = ending.waitForExit(std::max(left, milliseconds(0)));
        outlivedGrace = Clock::now() - ending.letGo >= ending.grace;
      }
      lock.lock();
      --m_outgoing;
      if (ending.counted) {
        ++m_retired;
        if (EndedByKill(end, outlivedGrace)) ++m_killed;
      }
      m_changed.notify_all();
    }
  }

  const CHandlerPoolSettings m_settings;
  const std::uint32_t m_max;
  const std::uint32_t m_min;
  HandlerSettings m_startSettings;  // what every start runs with; read-only after construction

  std::mutex m_mutex;
  std::condition_variable m_starterWake;    // a start may be wanted, or the pool stops
  std::condition_variable m_retirerWake;    // something to retire, or idle handlers changed
  std::condition_variable m_collectorWake;  // a process to wait for, or the threads end
  std::condition_variable m_changed;        // any count changed (Stop, WaitForStats)
  bool m_retirerTiming = false;  // under m_mutex: the retirer waits for the oldest's deadline

  // Guarded by m_mutex, all of the following.
  std::deque<std::unique_ptr<PoolSlot>> m_idle;  // back: the most recently returned
  std::deque<Waiter*> m_waiters;                 // first come, first served
  std::deque<std::pair<std::unique_ptr<PoolSlot>, bool>> m_toRetire;  // with `counted`
  std::deque<Ending> m_ending;
  std::uint32_t m_busy = 0;
  std::uint32_t m_sessions = 0;
  std::uint32_t m_starting = 0;
  std::uint32_t m_outgoing = 0;  // in m_toRetire, being let go of, in m_ending or awaited
  bool m_stopping = false;
  bool m_quit = false;
  bool m_lastStartFailed = false;
  Clock::time_point m_nextStartAt;
  milliseconds m_backoff = kFirstStartBackoff;
  std::uint64_t m_started = 0;
  std::uint64_t m_startFailures = 0;
  std::uint64_t m_retired = 0;
  std::uint64_t m_killed = 0;
  std::uint64_t m_leases = 0;

  std::thread m_starter;
  std::thread m_retirer;
  std::thread m_collector;
};

}  // namespace
}  // namespace detail

struct CHandlerPool::State : detail::PoolCore {
  using detail::PoolCore::PoolCore;
};

struct CHandlerLease::State {
  std::shared_ptr<detail::PoolCore> pool;
  std::unique_ptr<detail::PoolSlot> slot;
  bool session = false;
  bool retire = false;
};

CHandlerLease::CHandlerLease() noexcept = default;
CHandlerLease::CHandlerLease(CHandlerLease&& other) noexcept = default;

CHandlerLease& CHandlerLease::operator=(CHandlerLease&& other) noexcept {
  if (this != &other) {
    Release();
    m_state = std::move(other.m_state);
  }
  return *this;
}

CHandlerLease::~CHandlerLease() { Release(); }

CHandlerLease::operator bool() const noexcept { return m_state && m_state->slot; }

CHandler& CHandlerLease::operator*() const noexcept { return m_state->slot->handler; }

CHandler* CHandlerLease::operator->() const noexcept { return &m_state->slot->handler; }

void CHandlerLease::Retire() noexcept {
  if (m_state) m_state->retire = true;
}

void CHandlerLease::Release() noexcept {
  if (!m_state) return;
  const std::unique_ptr<State> state = std::move(m_state);
  if (state->slot) state->pool->TakeBack(std::move(state->slot), state->session, state->retire);
}

CHandlerPool::CHandlerPool(CHandlerPoolSettings settings)
    : m_state(std::make_shared<State>(std::move(settings))) {
  m_state->StartThreads();
}

CHandlerPool::~CHandlerPool() {
  m_state->Stop(std::chrono::milliseconds(0));
  m_state->JoinThreads();
}

EPoolWait CHandlerPool::Lend(CHandlerLease& lease, bool session) {
  lease.Release();
  // Made first: once the pool has lent the handler, nothing may fail before the lease holds it.
  auto state = std::make_unique<CHandlerLease::State>();
  const EPoolWait result = m_state->Lend(session, state->slot);
  if (result != EPoolWait::Ok) return result;
  state->pool = m_state;
  state->session = session;
  lease.m_state = std::move(state);
  return result;
}

EPoolWait CHandlerPool::Borrow(CHandlerLease& lease) { return Lend(lease, false); }

EPoolWait CHandlerPool::TakeForSession(CHandlerLease& lease) { return Lend(lease, true); }

bool CHandlerPool::CanServe() { return m_state->CanServe(); }

CHandlerPoolStats CHandlerPool::Stats() { return m_state->Stats(); }

bool CHandlerPool::WaitForStats(const std::function<bool(const CHandlerPoolStats&)>& condition,
                                std::uint32_t timeoutMs) {
  return m_state->WaitForStats(condition, std::chrono::milliseconds(timeoutMs));
}

const CHandlerPoolSettings& CHandlerPool::Settings() const noexcept { return m_state->Settings(); }

void CHandlerPool::Stop(std::uint32_t drainMs) {
  m_state->Stop(std::chrono::milliseconds(drainMs));
}

}  // namespace CTolvane
