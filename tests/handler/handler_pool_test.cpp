// CHandlerPool end to end against the test handler program: keeping the minimum, growing to
// the maximum, exclusive leases, retiring and replacing, idle reaping, bounded waiting, start
// failures, sessions, stopping, and no process left behind.
#include "handler/CHandlerPool.h"

#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <signal.h>  // kill, SIGSTOP
#endif

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "handler/CHandler.h"
#include "handler/detail/HandlerSettings.h"
#include "tests/handler/ProcessProbe.h"
#include "tests/handler/test_handler/TestHandler.h"
#include "tests/support/TempDir.h"
#include "tests/support/ThreadSwitches.h"
#include "tests/support/WaitFor.h"

namespace CTolvane {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using pendrel_test::ProcessExists;
using pendrel_test::TestHandlerPath;

// Long enough for any event a test waits for, even under Wine; a test that waits this long
// has failed.
constexpr std::uint32_t kEventWaitMs = 20000;

CHandlerPoolSettings TestSettings(const std::wstring& arguments = L"") {
  CHandlerPoolSettings settings;
  settings.Program = TestHandlerPath();
  settings.Arguments = arguments;
  settings.MinHandlers = 0;
  settings.MaxHandlers = 4;
  settings.QueueWaitMs = kEventWaitMs;
  settings.ResponseTimeoutS = 20;
  settings.StopGracePeriodMs = 2000;
  return settings;
}

// One exchange with the test handler, which echoes the request's parameters.
EErrorCode Echo(CHandler& handler, const std::wstring& text) {
  Pendrel::CRequest request;
  request.Command = L"ECHO";
  request.RequestParams[L"TEXT"] = text;
  Pendrel::CResponse response;
  const EErrorCode result = handler.HandleRequest(request, response);
  if (result == Ok) {
    EXPECT_EQ(response.Parameters[L"TEXT"], text);
  }
  return result;
}

// Waits until the pool's counts satisfy `condition`.
// Waits until the pool's counts satisfy `condition`; says what they were when they do not.
template <typename Condition>
bool WaitForPool(CHandlerPool& pool, Condition condition) {
  if (pool.WaitForStats(condition, kEventWaitMs)) return true;
  const CHandlerPoolStats s = pool.Stats();
  ADD_FAILURE() << "idle " << s.Idle << ", busy " << s.Busy << ", sessions " << s.Sessions
                << ", starting " << s.Starting << ", waiting " << s.Waiting << ", retiring "
                << s.Retiring << ", started " << s.Started << ", start failures " << s.StartFailures
                << ", retired " << s.Retired << ", killed " << s.Killed << ", leases " << s.Leases;
  return false;
}

// Whether process `pid` ends within the event wait; for ends that only the system announces.
bool ProcessEnds(std::uint32_t pid) {
  return pendrel_test::WaitFor([pid] { return !ProcessExists(pid); },
                               std::chrono::milliseconds(kEventWaitMs));
}

TEST(HandlerProcessId, IsTheStartedProcessWhileHeld) {
  CHandler handler;
  EXPECT_EQ(handler.GetProcessId(), 0u);
  ASSERT_EQ(handler.Start(TestHandlerPath(), 0, L""), Ok);
  const std::uint32_t pid = handler.GetProcessId();
  EXPECT_NE(pid, 0u);
  EXPECT_TRUE(ProcessExists(pid));
  EXPECT_EQ(handler.Stop(kEventWaitMs).How, EHandlerEnd::Exited);
  EXPECT_EQ(handler.GetProcessId(), 0u);
  EXPECT_FALSE(ProcessExists(pid));
}

TEST(HandlerProcessId, IsZeroWhenTheProgramCannotStart) {
  pendrel_test::TempDir dir;
  CHandler handler;
  EXPECT_EQ(handler.Start(dir.WidePath(L"no-such-handler.exe"), 0, L""), StartFailed);
  EXPECT_EQ(handler.GetProcessId(), 0u);
}

TEST(HandlerPool, StartsTheMinimumAtOnceWithoutABorrower) {
  CHandlerPoolSettings settings = TestSettings();
  settings.MinHandlers = 2;
  CHandlerPool pool(settings);
  EXPECT_TRUE(pool.CanServe());
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) { return s.Idle == 2; }));
  const CHandlerPoolStats stats = pool.Stats();
  EXPECT_EQ(stats.Started, 2u);
  EXPECT_EQ(stats.Busy, 0u);
  EXPECT_EQ(stats.Starting, 0u);
  EXPECT_EQ(stats.Leases, 0u);
}

#if !defined(_WIN32)
// Linux: a handler given back wakes none of the pool's threads, whether the pool holds its
// minimum (the retirer sleeps without a deadline) or more (it sleeps until the oldest idle
// handler's deadline, which a handler given back later does not move).
TEST(HandlerPool, GivingAHandlerBackWakesNoThreadOfThePool) {
  for (const std::size_t minimum : {std::size_t{1}, std::size_t{0}}) {
    CHandlerPoolSettings settings = TestSettings();
    settings.MinHandlers = minimum;
    settings.MaxHandlers = 1;
    settings.IdleMs = 600000;
    CHandlerPool pool(settings);
    {
      CHandlerLease first;
      ASSERT_EQ(pool.Borrow(first), EPoolWait::Ok);
    }
    ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) { return s.Idle == 1; }));
    // The first lease given back has set the retirer's deadline (minimum 0); from here on the
    // pool's threads only sleep.
    const long before = pendrel_test::VoluntarySwitchesOfOtherThreads();
    for (int round = 0; round < 100; ++round) {
      CHandlerLease lease;
      ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok) << round;
      lease.Release();
    }
    const long after = pendrel_test::VoluntarySwitchesOfOtherThreads();
    EXPECT_LT(after - before, 10) << "minimum " << minimum;
  }
}
#endif

TEST(HandlerPool, GrowsToTheMaximumAndNoFurther) {
  CHandlerPoolSettings settings = TestSettings();
  settings.MaxHandlers = 3;
  CHandlerPool pool(settings);
  CHandlerLease leases[3];
  std::set<std::uint32_t> pids;
  for (CHandlerLease& lease : leases) {
    ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
    ASSERT_TRUE(lease);
    EXPECT_EQ(Echo(*lease, L"grow"), Ok);
    pids.insert(lease->GetProcessId());
  }
  EXPECT_EQ(pids.size(), 3u);
  EXPECT_EQ(pids.count(0u), 0u);

  // A fourth borrower waits, and no fourth handler is started for it.
  std::uint32_t fourthPid = 0;
  std::thread fourth([&] {
    CHandlerLease lease;
    if (pool.Borrow(lease) == EPoolWait::Ok) fourthPid = lease->GetProcessId();
  });
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) { return s.Waiting == 1; }));
  CHandlerPoolStats stats = pool.Stats();
  EXPECT_EQ(stats.Started, 3u);
  EXPECT_EQ(stats.Busy, 3u);
  EXPECT_EQ(stats.Starting, 0u);

  // A handler given back goes to the waiting borrower: lent again, not a new one.
  const std::uint32_t returned = leases[1]->GetProcessId();
  leases[1].Release();
  EXPECT_FALSE(leases[1]);
  fourth.join();
  EXPECT_EQ(fourthPid, returned);
  stats = pool.Stats();
  EXPECT_EQ(stats.Started, 3u);
  EXPECT_EQ(stats.Leases, 4u);
  EXPECT_EQ(stats.Waiting, 0u);
}

TEST(HandlerPool, LendsAHandlerToOneBorrowerAtATime) {
  CHandlerPoolSettings settings = TestSettings();
  settings.MaxHandlers = 1;
  CHandlerPool pool(settings);
  CHandlerLease first;
  ASSERT_EQ(pool.Borrow(first), EPoolWait::Ok);
  const std::uint32_t pid = first->GetProcessId();

  std::atomic<bool> secondGotIt{false};
  std::uint32_t secondPid = 0;
  EPoolWait secondResult = EPoolWait::TimedOut;
  std::thread second([&] {
    CHandlerLease lease;
    secondResult = pool.Borrow(lease);
    secondGotIt = true;
    if (lease) {
      secondPid = lease->GetProcessId();
      EXPECT_EQ(Echo(*lease, L"second"), Ok);
    }
  });
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) { return s.Waiting == 1; }));
  // The first borrower's exchanges run while the second waits.
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Echo(*first, L"first " + std::to_wstring(i)), Ok);
  EXPECT_FALSE(secondGotIt);
  first.Release();
  second.join();
  EXPECT_EQ(secondResult, EPoolWait::Ok);
  EXPECT_EQ(secondPid, pid);
  EXPECT_EQ(pool.Stats().Leases, 2u);
}

TEST(HandlerPool, BorrowingIntoAHeldLeaseGivesItsHandlerBackFirst) {
  CHandlerPoolSettings settings = TestSettings();
  settings.MinHandlers = 1;
  settings.MaxHandlers = 1;
  settings.QueueWaitMs = 300;
  CHandlerPool pool(settings);
  // Started before the short queue wait counts.
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) { return s.Idle == 1; }));
  CHandlerLease lease;
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  const std::uint32_t pid = lease->GetProcessId();
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  EXPECT_EQ(lease->GetProcessId(), pid);
  // Moving a lease over another gives the overwritten one's handler back.
  CHandlerLease other = std::move(lease);
  EXPECT_FALSE(lease);
  ASSERT_TRUE(other);
  lease = std::move(other);
  ASSERT_TRUE(lease);
  EXPECT_EQ(Echo(*lease, L"moved"), Ok);
  CHandlerLease second;
  EXPECT_EQ(pool.Borrow(second), EPoolWait::TimedOut);
  lease = CHandlerLease();
  ASSERT_EQ(pool.Borrow(second), EPoolWait::Ok);
  EXPECT_EQ(second->GetProcessId(), pid);
  EXPECT_EQ(pool.Stats().Started, 1u);
}

TEST(HandlerPool, RetiresAHandlerWhoseExchangeFailedAndStartsAnother) {
  // The second message the handler gets kills it in the middle of its answer.
  CHandlerPoolSettings settings = TestSettings(L"--crash-mid-answer 1 --broken-at 2");
  settings.MinHandlers = 1;
  settings.MaxHandlers = 1;
  CHandlerPool pool(settings);
  CHandlerLease lease;
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  const std::uint32_t broken = lease->GetProcessId();
  EXPECT_EQ(Echo(*lease, L"one"), Ok);
  lease.Release();
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  EXPECT_EQ(lease->GetProcessId(), broken);
  EXPECT_NE(Echo(*lease, L"two"), Ok);
  lease.Release();

  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) {
    return s.Retired == 1 && s.Retiring == 0 && s.Idle == 1 && s.Started == 2;
  }));
  EXPECT_FALSE(ProcessExists(broken));
  EXPECT_EQ(pool.Stats().Killed, 0u);
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  EXPECT_NE(lease->GetProcessId(), broken);
  EXPECT_EQ(Echo(*lease, L"three"), Ok);
}

TEST(HandlerPool, RetiresAHandlerTheBorrowerMarked) {
  CHandlerPoolSettings settings = TestSettings();
  settings.MaxHandlers = 1;
  CHandlerPool pool(settings);
  CHandlerLease lease;
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  const std::uint32_t pid = lease->GetProcessId();
  EXPECT_EQ(Echo(*lease, L"fine"), Ok);
  lease.Retire();
  lease.Release();
  ASSERT_TRUE(WaitForPool(
      pool, [](const CHandlerPoolStats& s) { return s.Retired == 1 && s.Retiring == 0; }));
  EXPECT_FALSE(ProcessExists(pid));
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  EXPECT_NE(lease->GetProcessId(), pid);
}

TEST(HandlerPool, RetiresAHandlerAfterMaxRequestsLeases) {
  CHandlerPoolSettings settings = TestSettings();
  settings.MinHandlers = 1;
  settings.MaxHandlers = 1;
  settings.MaxRequests = 2;
  CHandlerPool pool(settings);
  CHandlerLease lease;
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  const std::uint32_t worn = lease->GetProcessId();
  EXPECT_EQ(Echo(*lease, L"1"), Ok);
  lease.Release();
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  EXPECT_EQ(lease->GetProcessId(), worn);
  EXPECT_EQ(Echo(*lease, L"2"), Ok);
  lease.Release();
  ASSERT_TRUE(WaitForPool(
      pool, [](const CHandlerPoolStats& s) { return s.Retired == 1 && s.Retiring == 0; }));
  EXPECT_FALSE(ProcessExists(worn));
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  EXPECT_NE(lease->GetProcessId(), worn);
  EXPECT_EQ(Echo(*lease, L"3"), Ok);
}

TEST(HandlerPool, StopsIdleHandlersAboveTheMinimum) {
  CHandlerPoolSettings settings = TestSettings();
  settings.MinHandlers = 1;
  settings.MaxHandlers = 3;
  settings.IdleMs = 50;
  CHandlerPool pool(settings);
  std::vector<std::uint32_t> pids;
  CHandlerLease leases[3];
  for (CHandlerLease& lease : leases) {
    ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
    pids.push_back(lease->GetProcessId());
  }
  // Given back first to last: the last one is the most recently used, and stays.
  for (CHandlerLease& lease : leases) lease.Release();
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) {
    return s.Idle == 1 && s.Retired == 2 && s.Retiring == 0;
  }));
  EXPECT_FALSE(ProcessExists(pids[0]));
  EXPECT_FALSE(ProcessExists(pids[1]));
  EXPECT_TRUE(ProcessExists(pids[2]));
  CHandlerLease lease;
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  EXPECT_EQ(lease->GetProcessId(), pids[2]);
  EXPECT_EQ(pool.Stats().Started, 3u);
}

TEST(HandlerPool, RetiresAnIdleHandlerWhoseProcessEndedAndLendsAnother) {
  // The handler ends by itself after answering one message.
  CHandlerPoolSettings settings = TestSettings(L"--exit-after 1");
  settings.MaxHandlers = 1;
  CHandlerPool pool(settings);
  CHandlerLease lease;
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  const std::uint32_t ended = lease->GetProcessId();
  EXPECT_EQ(Echo(*lease, L"last words"), Ok);
  ASSERT_EQ(lease->GetHandlerExit(kEventWaitMs).How, EHandlerEnd::Exited);
  lease.Release();
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  EXPECT_NE(lease->GetProcessId(), ended);
  EXPECT_EQ(Echo(*lease, L"fresh"), Ok);
}

TEST(HandlerPool, RefusesCallersBeyondTheQueueLength) {
  CHandlerPoolSettings settings = TestSettings();
  settings.MaxHandlers = 1;
  settings.QueueLength = 1;
  CHandlerPool pool(settings);
  CHandlerLease held;
  ASSERT_EQ(pool.Borrow(held), EPoolWait::Ok);
  EPoolWait waiterResult = EPoolWait::TimedOut;
  std::thread waiter([&] {
    CHandlerLease lease;
    waiterResult = pool.Borrow(lease);
  });
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) { return s.Waiting == 1; }));
  CHandlerLease refused;
  const Clock::time_point before = Clock::now();
  EXPECT_EQ(pool.Borrow(refused), EPoolWait::QueueFull);
  EXPECT_LT(Clock::now() - before, 5s);
  EXPECT_EQ(pool.TakeForSession(refused), EPoolWait::QueueFull);
  EXPECT_FALSE(refused);
  held.Release();
  waiter.join();
  EXPECT_EQ(waiterResult, EPoolWait::Ok);
}

TEST(HandlerPool, GivesUpWaitingAfterTheQueueWait) {
  CHandlerPoolSettings settings = TestSettings();
  settings.MinHandlers = 1;
  settings.MaxHandlers = 1;
  settings.QueueWaitMs = 200;
  CHandlerPool pool(settings);
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) { return s.Idle == 1; }));
  CHandlerLease held;
  ASSERT_EQ(pool.Borrow(held), EPoolWait::Ok);
  CHandlerLease late;
  const Clock::time_point before = Clock::now();
  EXPECT_EQ(pool.Borrow(late), EPoolWait::TimedOut);
  const auto waited = Clock::now() - before;
  EXPECT_GE(waited, 200ms);
  EXPECT_LT(waited, 10s);
  EXPECT_FALSE(late);
  EXPECT_EQ(pool.Stats().Waiting, 0u);
}

TEST(HandlerPool, AnswersStartFailedForAMissingProgramWithoutWaitingOut) {
  pendrel_test::TempDir dir;
  CHandlerPoolSettings settings = TestSettings();
  settings.Program = dir.WidePath(L"no-such-handler.exe");
  settings.MinHandlers = 1;
  settings.QueueWaitMs = 60000;
  CHandlerPool pool(settings);
  CHandlerLease lease;
  for (int attempt = 0; attempt < 3; ++attempt) {
    const Clock::time_point before = Clock::now();
    EXPECT_EQ(pool.Borrow(lease), EPoolWait::StartFailed);
    EXPECT_LT(Clock::now() - before, 15s);
    EXPECT_FALSE(lease);
  }
  const CHandlerPoolStats stats = pool.Stats();
  EXPECT_GE(stats.StartFailures, 1u);
  EXPECT_EQ(stats.Started, 0u);
  EXPECT_EQ(stats.Waiting, 0u);
  EXPECT_FALSE(pool.CanServe());
}

TEST(HandlerPool, PausesLongerAndLongerBeforeStartingABrokenProgramAgain) {
  pendrel_test::TempDir dir;
  CHandlerPoolSettings settings = TestSettings();
  settings.Program = dir.WidePath(L"no-such-handler.exe");
  settings.MinHandlers = 1;  // the pool itself keeps trying
  CHandlerPool pool(settings);
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) { return s.StartFailures >= 1; }));
  const Clock::time_point first = Clock::now();
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) { return s.StartFailures >= 3; }));
  // 100 ms, then 200 ms between the starts: a loop would have failed thousands of times.
  EXPECT_GE(Clock::now() - first, 200ms);
  EXPECT_LE(pool.Stats().StartFailures, 4u);
}

TEST(HandlerPool, WakesAWaiterWithStartFailedWhenTheStartItWaitsForFails) {
  // The program starts, but ends before it connects: noticed at once.
  CHandlerPoolSettings settings = TestSettings(L"--exit-before-connect");
  settings.QueueWaitMs = 60000;
  CHandlerPool pool(settings);  // no minimum: the borrower's demand makes the first start
  CHandlerLease lease;
  const Clock::time_point before = Clock::now();
  EXPECT_EQ(pool.Borrow(lease), EPoolWait::StartFailed);
  EXPECT_LT(Clock::now() - before, 15s);
  EXPECT_EQ(pool.Stats().StartFailures, 1u);
  // The process that did start is collected.
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) { return s.Retiring == 0; }));
  EXPECT_EQ(pool.Stats().Retired, 0u);
}

TEST(HandlerPool, StartsWithTheHandlerSettingsOfTheThreadThatMadeIt) {
  // The program starts but never connects; the settings cut the connection wait short.
  detail::HandlerSettings quick;
  quick.connectTimeLimitMs = 300;
  std::unique_ptr<CHandlerPool> pool;
  {
    const detail::ScopedHandlerSettings scope(quick);
    CHandlerPoolSettings settings = TestSettings(L"--never-connect");
    settings.QueueWaitMs = 60000;
    settings.StopGracePeriodMs = 200;
    pool = std::make_unique<CHandlerPool>(settings);
  }
  CHandlerLease lease;
  const Clock::time_point before = Clock::now();
  EXPECT_EQ(pool->Borrow(lease), EPoolWait::StartFailed);
  EXPECT_LT(Clock::now() - before, 8s);  // the default connection wait is 10 s
  // The process that never connected is killed and collected, and not counted as retired.
  ASSERT_TRUE(WaitForPool(*pool, [](const CHandlerPoolStats& s) { return s.Retiring == 0; }));
  const CHandlerPoolStats stats = pool->Stats();
  EXPECT_EQ(stats.StartFailures, 1u);
  EXPECT_EQ(stats.Retired, 0u);
  EXPECT_EQ(stats.Killed, 0u);
}

TEST(HandlerPool, TakesASessionsHandlerOutOfThePoolAndRetiresItAfter) {
  CHandlerPoolSettings settings = TestSettings();
  settings.MinHandlers = 1;
  settings.MaxHandlers = 2;
  settings.QueueWaitMs = 300;
  CHandlerPool pool(settings);
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) { return s.Idle == 1; }));
  CHandlerLease session;
  ASSERT_EQ(pool.TakeForSession(session), EPoolWait::Ok);
  const std::uint32_t sessionPid = session->GetProcessId();
  Pendrel::CResponse opened;
  ASSERT_EQ(session->OnCreateSession(L"S1", L"user", L"1", L"H", L"T", L"log.txt", 60, opened), Ok);
  EXPECT_EQ(opened.Session, L"S1");
  // The minimum is kept without the session's handler.
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) {
    return s.Sessions == 1 && s.Idle == 1 && s.Started == 2;
  }));
  CHandlerLease borrowed;
  ASSERT_EQ(pool.Borrow(borrowed), EPoolWait::Ok);
  EXPECT_NE(borrowed->GetProcessId(), sessionPid);
  // The session counts toward the maximum.
  CHandlerLease third;
  EXPECT_EQ(pool.Borrow(third), EPoolWait::TimedOut);

  session->OnCloseSession();
  session.Release();
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) {
    return s.Sessions == 0 && s.Retired == 1 && s.Retiring == 0;
  }));
  EXPECT_FALSE(ProcessExists(sessionPid));
  EXPECT_TRUE(ProcessExists(borrowed->GetProcessId()));
}

TEST(HandlerPool, StopDrainsTheExchangesInFlightThenStopsEveryHandler) {
  CHandlerPoolSettings settings = TestSettings(L"--delay-ms 300");
  settings.MinHandlers = 2;
  CHandlerPool pool(settings);
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) { return s.Idle == 2; }));
  std::uint32_t busyPid = 0;
  EErrorCode inFlight = NotStarted;
  std::atomic<bool> borrowed{false};
  std::thread borrower([&] {
    CHandlerLease lease;
    if (pool.Borrow(lease) != EPoolWait::Ok) return;
    busyPid = lease->GetProcessId();
    borrowed = true;
    inFlight = Echo(*lease, L"in flight");
  });
  ASSERT_TRUE(pendrel_test::WaitFor([&] { return borrowed.load(); }, 20s));
  std::vector<std::uint32_t> pids{busyPid};
  {
    CHandlerLease other;
    ASSERT_EQ(pool.Borrow(other), EPoolWait::Ok);
    pids.push_back(other->GetProcessId());
  }
  pool.Stop(kEventWaitMs);
  borrower.join();
  EXPECT_EQ(inFlight, Ok);
  for (const std::uint32_t pid : pids) EXPECT_FALSE(ProcessExists(pid)) << pid;
  const CHandlerPoolStats stats = pool.Stats();
  EXPECT_EQ(stats.Idle + stats.Busy + stats.Starting + stats.Retiring, 0u);
  EXPECT_EQ(stats.Retired, 2u);
  EXPECT_EQ(stats.Killed, 0u);
  EXPECT_FALSE(pool.CanServe());
  CHandlerLease late;
  EXPECT_EQ(pool.Borrow(late), EPoolWait::Stopping);
  EXPECT_EQ(pool.TakeForSession(late), EPoolWait::Stopping);
}

TEST(HandlerPool, StopWakesWaitersWithStopping) {
  CHandlerPoolSettings settings = TestSettings();
  settings.MaxHandlers = 1;
  CHandlerPool pool(settings);
  CHandlerLease held;
  ASSERT_EQ(pool.Borrow(held), EPoolWait::Ok);
  const std::uint32_t pid = held->GetProcessId();
  EPoolWait waiterResult = EPoolWait::Ok;
  std::thread waiter([&] {
    CHandlerLease lease;
    waiterResult = pool.Borrow(lease);
  });
  ASSERT_TRUE(WaitForPool(pool, [](const CHandlerPoolStats& s) { return s.Waiting == 1; }));
  pool.Stop(0);  // the held lease is not waited for
  waiter.join();
  EXPECT_EQ(waiterResult, EPoolWait::Stopping);
  // Still the borrower's until it gives the handler back; then it is retired.
  EXPECT_EQ(Echo(*held, L"after stop"), Ok);
  held.Release();
  ASSERT_TRUE(WaitForPool(
      pool, [](const CHandlerPoolStats& s) { return s.Retired == 1 && s.Retiring == 0; }));
  EXPECT_FALSE(ProcessExists(pid));
}

TEST(HandlerPool, KillsARetiredHandlerThatDoesNotEndInItsGracePeriod) {
  // The handler never returns from the request, so it cannot notice its pipe close.
  CHandlerPoolSettings settings = TestSettings(L"--hang-in-request");
  settings.ResponseTimeoutS = 1;
  settings.StopGracePeriodMs = 2000;
  CHandlerPool pool(settings);
  CHandlerLease lease;
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  const std::uint32_t pid = lease->GetProcessId();
  EXPECT_EQ(Echo(*lease, L"hang"), ResponseTimeout);
  // The borrower does not wait for the grace period: the pool's threads do.
  const Clock::time_point before = Clock::now();
  lease.Release();
  EXPECT_LT(Clock::now() - before, 1000ms);
  EXPECT_EQ(pool.Stats().Retiring, 1u);
  ASSERT_TRUE(WaitForPool(
      pool, [](const CHandlerPoolStats& s) { return s.Retired == 1 && s.Retiring == 0; }));
  EXPECT_EQ(pool.Stats().Killed, 1u);
  EXPECT_FALSE(ProcessExists(pid));
}

#if !defined(_WIN32)
TEST(HandlerPool, RetiresAFrozenHandlerWithoutWaitingForItToReadItsRequest) {
  // A stopped process reads nothing: the request stays half written when the exchange times
  // out. Retiring the handler must not wait for the rest to go out (the channel's 60 s).
  CHandlerPoolSettings settings = TestSettings();
  settings.MaxHandlers = 1;
  settings.ResponseTimeoutS = 1;
  settings.StopGracePeriodMs = 500;
  CHandlerPool pool(settings);
  CHandlerLease lease;
  ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
  const std::uint32_t pid = lease->GetProcessId();
  ASSERT_EQ(::kill(static_cast<pid_t>(pid), SIGSTOP), 0);
  Pendrel::CRequest request;
  request.Command = L"ECHO";
  request.InputData.emplace_back();
  request.InputData.back().Data.assign(std::size_t{16} << 20, 'f');
  Pendrel::CResponse response;
  EXPECT_EQ(lease->HandleRequest(request, response), ResponseTimeout);
  lease.Release();
  ASSERT_TRUE(WaitForPool(
      pool, [](const CHandlerPoolStats& s) { return s.Retired == 1 && s.Retiring == 0; }));
  EXPECT_EQ(pool.Stats().Killed, 1u);
  EXPECT_FALSE(ProcessExists(pid));
}
#endif

TEST(HandlerPool, LeavesNoProcessBehindWhenDestroyed) {
  std::vector<std::uint32_t> pids;
  {
    CHandlerPoolSettings settings = TestSettings();
    settings.MinHandlers = 2;
    CHandlerPool pool(settings);
    CHandlerLease leases[4];
    for (CHandlerLease& lease : leases) {
      ASSERT_EQ(pool.Borrow(lease), EPoolWait::Ok);
      pids.push_back(lease->GetProcessId());
    }
    for (CHandlerLease& lease : leases) lease.Release();
    // A session's handler, given back just before the pool ends.
    CHandlerLease session;
    ASSERT_EQ(pool.TakeForSession(session), EPoolWait::Ok);
    pids.push_back(session->GetProcessId());
  }
  ASSERT_EQ(pids.size(), 5u);
  for (const std::uint32_t pid : pids) EXPECT_FALSE(ProcessExists(pid)) << pid;
}

TEST(HandlerPool, ALeaseThatOutlivesItsPoolLetsGoOfItsHandler) {
  auto pool = std::make_unique<CHandlerPool>(TestSettings());
  CHandlerLease lease;
  ASSERT_EQ(pool->Borrow(lease), EPoolWait::Ok);
  const std::uint32_t pid = lease->GetProcessId();
  pool.reset();
  EXPECT_EQ(Echo(*lease, L"orphan"), Ok);
  lease.Release();
  EXPECT_TRUE(ProcessEnds(pid));
}

TEST(HandlerPool, ServesManyThreadsBorrowingAtOnce) {
  constexpr int kThreads = 12;
  constexpr int kRounds = 15;
  CHandlerPoolSettings settings = TestSettings();
  settings.MinHandlers = 1;
  settings.MaxHandlers = 4;
  CHandlerPool pool(settings);
  std::mutex mutex;
  std::set<std::uint32_t> inUse;  // guarded by mutex
  std::set<std::uint32_t> seen;   // guarded by mutex
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < kRounds; ++round) {
        CHandlerLease lease;
        if (pool.Borrow(lease) != EPoolWait::Ok) {
          ++failures;
          continue;
        }
        const std::uint32_t pid = lease->GetProcessId();
        {
          const std::lock_guard<std::mutex> lock(mutex);
          if (!inUse.insert(pid).second) ++failures;  // lent to two borrowers at once
          seen.insert(pid);
        }
        if (Echo(*lease, std::to_wstring(t) + L"/" + std::to_wstring(round)) != Ok) ++failures;
        const std::lock_guard<std::mutex> lock(mutex);
        inUse.erase(pid);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  const CHandlerPoolStats stats = pool.Stats();
  EXPECT_EQ(stats.Leases, static_cast<std::uint64_t>(kThreads * kRounds));
  EXPECT_EQ(stats.Busy, 0u);
  EXPECT_EQ(stats.Waiting, 0u);
  EXPECT_LE(stats.Started, 4u);
  EXPECT_LE(seen.size(), 4u);
  EXPECT_EQ(stats.Retired, 0u);
}

}  // namespace
}  // namespace CTolvane
