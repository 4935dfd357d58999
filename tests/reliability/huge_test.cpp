// Messages at the size limits: a message announced past the 1 GiB cap is refused on its
// first packet, before any memory is taken for it; one announced within the cap takes only
// what has arrived; once an exchange is over the host keeps nothing of it; and a real
// 256 MiB message goes each way intact.
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

#include "handler/CHandler.h"
#include "handler/detail/HandlerSettings.h"
#include "json/TextConversion.h"
#include "pipe/NamedPipeChannel.h"
#include "tests/reliability/ReliabilitySupport.h"
#include "tests/reliability/fault_handler/FaultHandler.h"
#include "tests/support/PatternBytes.h"

namespace pendrel_reliability {
namespace {

using CTolvane::ChannelError;
using CTolvane::Ok;

constexpr std::int64_t kMiB = 1 << 20;
constexpr char kHeapNotCounted[] =
    "this build cannot count the heap (ThreadSanitizer's runtime owns operator new)";

TEST(HugeMessage, AnnouncedPastTheCapIsRefusedBeforeMemoryIsTaken) {
  if (!HeapIsCounted()) GTEST_SKIP() << kHeapNotCounted;
  FaultHost host(L"--header 32777,32760");
  ASSERT_EQ(host.StartResult(), Ok) << host.ErrorMessage();
  ResetHeapPeak();
  const std::int64_t before = HeapBytesInUse();
  Pendrel::CResponse response;
  EXPECT_EQ(host.handler.HandleRequest(FileRequest(L"huge", "x"), response), ChannelError);
  EXPECT_EQ(host.Failure(), RefusedPacket(8)) << host.ErrorMessage();
  EXPECT_LT(HeapPeakBytes() - before, 4 * kMiB);
}

TEST(HugeMessage, AnnouncedWithinTheCapTakesOnlyWhatArrived) {
  if (!HeapIsCounted()) GTEST_SKIP() << kHeapNotCounted;
  std::optional<CTolvane::detail::ScopedHandlerSettings> settings(std::in_place);
  settings->Get().channelTimeLimitMs = 1500;
  FaultHost host(L"--header 32776,32760");
  settings.reset();
  ASSERT_EQ(host.StartResult(), Ok) << host.ErrorMessage();
  ResetHeapPeak();
  const std::int64_t before = HeapBytesInUse();
  Pendrel::CResponse response;
  EXPECT_EQ(host.handler.HandleRequest(FileRequest(L"huge", "x"), response), ChannelError);
  EXPECT_EQ(host.Failure(), PacketTimedOut(32776)) << host.ErrorMessage();
  EXPECT_LT(HeapPeakBytes() - before, 4 * kMiB);
}

// Once an exchange is over, the host holds no copy of what went either way: not the request
// it wrote, not the answer it read.
TEST(HugeMessage, HostKeepsNothingOfAnExchangeThatIsOver) {
  if (!HeapIsCounted()) GTEST_SKIP() << kHeapNotCounted;
  FaultHost host;
  ASSERT_EQ(host.StartResult(), Ok) << host.ErrorMessage();
  ASSERT_EQ(EchoProblem(host.handler, L"small", "x"), "");
  const std::int64_t before = HeapBytesInUse();
  ASSERT_EQ(EchoProblem(host.handler, L"large", pendrel_test::PatternBytes(8 * kMiB)), "");
  EXPECT_LT(HeapBytesInUse() - before, 64 * 1024);
}

TEST(HugeMessage, QuarterGibibyteGoesEachWayIntact) {
  // Slow builds (sanitizers, Wine) take a while; the handler ends itself after a minute.
  FaultHost host(L"--lifetime-ms 600000");
  ASSERT_EQ(host.StartResult(), Ok) << host.ErrorMessage();
  EXPECT_EQ(EchoProblem(host.handler, L"huge", pendrel_test::PatternBytes(256 * kMiB)), "");
}

}  // namespace
}  // namespace pendrel_reliability
