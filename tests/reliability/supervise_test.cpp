// Handler processes are supervised: once the last owner lets go, a handler that does not end
// by itself is killed after the grace period and collected, without the owner waiting; a
// handler that ends by itself is left to do so; and every handler ends with its host, even
// a host that is killed from outside.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "handler/CHandler.h"
#include "handler/detail/ChildProcess.h"
#include "handler_kit/CHandlerKit.h"
#include "tests/handler/test_handler/TestHandler.h"
#include "tests/reliability/ReliabilitySupport.h"
#include "tests/reliability/fault_handler/FaultHandler.h"
#include "tests/support/Platform.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestProcess.h"
#include "tests/support/WaitFor.h"

namespace pendrel_reliability {
namespace {

using Clock = std::chrono::steady_clock;
using CTolvane::CHandler;
using CTolvane::CHandlerExit;
using CTolvane::EHandlerEnd;
using CTolvane::Ok;

struct Collected {
  CHandlerExit end;
  Clock::time_point at;
};

// Records every child the supervision collects while it lives.
class CollectedChildren {
 public:
  CollectedChildren() {
    CTolvane::detail::SetCollectedObserver([this](std::uint32_t id, const CHandlerExit& end) {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_collected[id] = {end, Clock::now()};
      m_changed.notify_all();
    });
  }
  ~CollectedChildren() { CTolvane::detail::SetCollectedObserver(nullptr); }
  CollectedChildren(const CollectedChildren&) = delete;
  CollectedChildren& operator=(const CollectedChildren&) = delete;

  // The child `id` once collected, if that happens within `timeout`.
  std::optional<Collected> WaitFor(std::uint32_t id, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_changed.wait_for(lock, timeout, [&] { return m_collected.count(id) != 0; })) {
      return std::nullopt;
    }
    return m_collected.at(id);
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::map<std::uint32_t, Collected> m_collected;  // guarded by m_mutex
};

bool IsTheLibrarysKill(const CHandlerExit& end) {
  const CHandlerExit killed = KilledByTheLibrary();
  return end.How == killed.How && end.Code == killed.Code;
}

constexpr std::uint32_t kGraceMs = 800;

// The process id of the handler `host` started (0 if it did not start, which is reported),
// with `gracePeriodMs` as its grace period.
std::uint32_t StartedHandlerId(FaultHost& host, std::uint32_t gracePeriodMs) {
  EXPECT_EQ(host.StartResult(), Ok) << host.ErrorMessage();
  host.handler.StopGracePeriodMs = gracePeriodMs;
  return host.StartResult() == Ok ? host.ProcessId() : 0;
}

TEST(HandlerSupervision, StubbornHandlerIsKilledOnceTheGracePeriodHasPassed) {
  CollectedChildren collected;
  FaultHost host(L"--stubborn");
  const std::uint32_t pid = StartedHandlerId(host, kGraceMs);
  ASSERT_NE(pid, 0u);
  const auto letGo = Clock::now();
  host.handler = CHandler();
  EXPECT_LT(Clock::now() - letGo, std::chrono::milliseconds(kGraceMs / 2))
      << "the owner does not wait for the grace period";
  EXPECT_FALSE(ProcessEndedWithin(pid, std::chrono::milliseconds(kGraceMs / 2)))
      << "the closed pipe alone does not end this handler";
  const std::optional<Collected> end = collected.WaitFor(pid, 10s);
  ASSERT_TRUE(end) << "the stubborn handler was never killed";
  EXPECT_GE(end->at - letGo, std::chrono::milliseconds(kGraceMs - 50));
  EXPECT_TRUE(IsTheLibrarysKill(end->end))
      << static_cast<int>(end->end.How) << " " << end->end.Code;
  EXPECT_TRUE(ProcessGoneWithin(pid, 0ms)) << "collected: no zombie";
}

TEST(HandlerSupervision, HandlerThatEndsByItselfIsLeftToDoSo) {
  CollectedChildren collected;
  FaultHost host;
  const std::uint32_t pid = StartedHandlerId(host, 60000);
  ASSERT_NE(pid, 0u);
  host.handler = CHandler();
  const std::optional<Collected> end = collected.WaitFor(pid, 10s);
  ASSERT_TRUE(end) << "the handler was not collected after its pipe closed";
  EXPECT_EQ(end->end.How, EHandlerEnd::Exited);
  EXPECT_EQ(end->end.Code, pendrel_fault::kExitNormal);
}

TEST(HandlerSupervision, SecondStartLetsGoOfTheFirstHandlerTheSameWay) {
  CollectedChildren collected;
  FaultHost host(L"--stubborn");
  const std::uint32_t pid = StartedHandlerId(host, kGraceMs);
  ASSERT_NE(pid, 0u);
  ASSERT_EQ(host.handler.Start(pendrel_fault::FaultHandlerPath(), 0, L""), Ok);
  const std::optional<Collected> end = collected.WaitFor(pid, 10s);
  ASSERT_TRUE(end) << "the first handler was never killed";
  EXPECT_TRUE(IsTheLibrarysKill(end->end));
  EXPECT_EQ(EchoProblem(host.handler, L"second", "still served"), "");
}

// A kit handler whose callback is stuck ends itself once the pipe has closed and the kit's
// grace period has passed, long before the library's own (here a minute) would kill it.
TEST(HandlerSupervision, KitHandlerStuckInACallbackEndsItselfAfterThePipeCloses) {
  CollectedChildren collected;
  pendrel_test::TempDir dir;
  const std::filesystem::path pidFile = dir.path() / "pid.txt";
  CHandler handler;
  ASSERT_EQ(handler.Start(pendrel_test::TestHandlerPath(), 0,
                          L"--hang-in-request --close-grace-ms 500 --pid-file \"" +
                              pidFile.wstring() + L"\""),
            Ok);
  std::uint32_t pid = 0;
  ASSERT_TRUE(static_cast<bool>(std::ifstream(pidFile) >> pid)) << "written before connecting";
  handler.ResponseTimeoutS = 1;
  handler.StopGracePeriodMs = 60000;
  Pendrel::CResponse response;
  EXPECT_EQ(handler.HandleRequest(Pendrel::CRequest(), response), CTolvane::ResponseTimeout);
  const auto letGo = Clock::now();
  handler = CHandler();
  const std::optional<Collected> end = collected.WaitFor(pid, 10s);
  ASSERT_TRUE(end) << "the stuck handler did not end";
  EXPECT_GE(end->at - letGo, 450ms);
  EXPECT_EQ(end->end.How, EHandlerEnd::Exited);
  EXPECT_EQ(end->end.Code, PendrelKit::kExitCallbackOverran);
}

TEST(HandlerSupervision, HandlersEndWithAHostThatIsKilled) {
  pendrel_test::TempDir dir;
  const std::filesystem::path pidFile = dir.path() / "handler-pid.txt";
  pendrel_test::TestProcess host({pendrel_test::ProgramPathFromBuild(PENDREL_SUPERVISE_HOST_PATH),
                                  pendrel_test::ProgramPathFromBuild(PENDREL_FAULT_HANDLER_PATH),
                                  pidFile.wstring()});
  ASSERT_TRUE(host.Started());
  std::uint32_t handlerPid = 0;
  // The handler writes its id once it runs; nothing else announces it to this process.
  ASSERT_TRUE(pendrel_test::WaitFor(
      [&] {
        std::ifstream in(pidFile);
        return static_cast<bool>(in >> handlerPid) && handlerPid != 0;
      },
      10s));
  EXPECT_FALSE(ProcessEndedWithin(handlerPid, 0ms));
  ASSERT_TRUE(KillProcess(host.ProcessId()));
  EXPECT_NE(host.Wait(10s), -1);
  EXPECT_TRUE(ProcessEndedWithin(handlerPid, 10s)) << "the handler outlived its killed host";
  if (!ProcessEndedWithin(handlerPid, 0ms)) KillProcess(handlerPid);
}

}  // namespace
}  // namespace pendrel_reliability
