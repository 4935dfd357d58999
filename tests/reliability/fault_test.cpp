// Handlers that break the protocol: each fault gives the documented error code and text
// within its time limit, the host neither crashes nor leaks (the suite also runs under the
// sanitizers), the broken handler's process is gone once its CHandler is, and a handler that
// behaves, started beside it in the same host, keeps working throughout.
//
// Covered elsewhere and not repeated here: a handler that exits before connecting or never
// connects, crashing after two packets, a packet header announcing more than its packet
// holds, and answers that are not JSON (tests/handler/handler_test.cpp); lying headers at the
// channel itself (tests/pipe/wire_format_test.cpp).
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <thread>

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
using CTolvane::EErrorCode;
using CTolvane::Ok;
using CTolvane::ResponseTimeout;
using Clock = std::chrono::steady_clock;

// Sets the channel time limit of handlers started on this thread while it lives.
class ChannelTimeLimit {
 public:
  explicit ChannelTimeLimit(std::uint32_t milliseconds) {
    m_settings.Get().channelTimeLimitMs = milliseconds;
  }

 private:
  CTolvane::detail::ScopedHandlerSettings m_settings;
};

struct FaultCase {
  const char* name;
  const wchar_t* options;
  EErrorCode expected;
  // The failure the handler reports afterwards.
  std::function<Pendrel::CChannelFailure()> failure;
  std::chrono::milliseconds within;
  std::uint32_t channelTimeLimitMs = Pendrel::NamedPipeChannel::kDefaultTimeLimitMs;
  std::int32_t responseTimeoutS = 120;
  // The handler answers after the request has timed out.
  bool answersLate = false;
};

void PrintTo(const FaultCase& c, std::ostream* out) { *out << c.name; }

class HandlerFault : public testing::TestWithParam<FaultCase> {};

TEST_P(HandlerFault, GivesItsErrorInTimeWhileAnotherHandlerKeepsWorking) {
  const FaultCase& c = GetParam();
  FaultHost good;
  ASSERT_EQ(good.StartResult(), Ok) << good.ErrorMessage();
  ASSERT_EQ(EchoProblem(good.handler, L"before", "first"), "");

  std::uint32_t brokenPid = 0;
  {
    const ChannelTimeLimit limit(c.channelTimeLimitMs);
    FaultHost broken(c.options);
    ASSERT_EQ(broken.StartResult(), Ok) << broken.ErrorMessage();
    brokenPid = broken.ProcessId();
    ASSERT_NE(brokenPid, 0u);
    broken.handler.ResponseTimeoutS = c.responseTimeoutS;

    // The good handler is busy at the same time.
    std::string goodProblem;
    std::thread goodTraffic([&good, &goodProblem] {
      for (int i = 0; i < 5 && goodProblem.empty(); ++i) {
        goodProblem = EchoProblem(good.handler, L"during" + std::to_wstring(i),
                                  pendrel_test::PatternBytes(1000 + 30000 * i));
      }
    });
    Pendrel::CResponse response;
    const auto start = Clock::now();
    const EErrorCode code = broken.handler.HandleRequest(FileRequest(L"broken", "x"), response);
    const auto took = Clock::now() - start;
    goodTraffic.join();
    // A late answer has gone out to the host by now; it must never be read.
    if (c.answersLate) {
      EXPECT_TRUE(broken.WaitForAnswersSent(1, 10s)) << "the late answer never went out";
    }

    EXPECT_EQ(code, c.expected);
    EXPECT_EQ(broken.handler.LastError(), c.expected);
    EXPECT_EQ(broken.Failure(), c.failure()) << broken.ErrorMessage();
    EXPECT_LT(took, c.within);
    EXPECT_EQ(goodProblem, "");
    // Sticky: the next request fails at once with the same code.
    const auto again = Clock::now();
    EXPECT_EQ(broken.handler.RequestAllOutputFiles(response), c.expected);
    EXPECT_LT(Clock::now() - again, 500ms);
    EXPECT_EQ(broken.Received(), 1u) << "nothing was sent after the failure";
  }
  EXPECT_TRUE(ProcessGoneWithin(brokenPid, 10s)) << "the broken handler's process is left";
  EXPECT_EQ(EchoProblem(good.handler, L"after", "last"), "");
}

INSTANTIATE_TEST_SUITE_P(
    Faults, HandlerFault,
    testing::Values(
        FaultCase{"CrashBeforeAnswering", L"--crash-after-packets 0", ChannelError, PeerGone, 10s},
        FaultCase{"CrashAfterOnePacket", L"--crash-after-packets 1", ChannelError, PeerGone, 10s},
        FaultCase{"CrashAfterFivePackets", L"--crash-after-packets 5", ChannelError, PeerGone, 10s},
        // The gap between two packets of one message passes the channel's time limit;
        // the text counts the packets the last one announced.
        FaultCase{"HangMidAnswer", L"--hang-after-packets 2", ChannelError,
                  [] { return PacketTimedOut(1); }, 8s, 1500},
        FaultCase{"HangMidAnswerPastTheResponseTime", L"--hang-after-packets 2", ResponseTimeout,
                  NoFailure, 8s, Pendrel::NamedPipeChannel::kDefaultTimeLimitMs, 1},
        FaultCase{"GarbageShorterThanAHeader", L"--garbage short", ChannelError,
                  [] { return RefusedPacket(13); }, 10s},
        FaultCase{"GarbageOfAllOnes", L"--garbage ones", ChannelError,
                  [] { return RefusedPacket(13); }, 10s},
        FaultCase{"PayloadLongerThanThePacket", L"--packet-size 64 --header 0,100", ChannelError,
                  [] { return RefusedPacket(13); }, 10s},
        FaultCase{"BillionsOfPacketsAnnounced", L"--header 4294967295,32760", ChannelError,
                  [] { return RefusedPacket(8); }, 10s},
        // A full packet with 32,777 more to come: at least 1 GiB + 32,697 bytes, over
        // the cap, refused at once. With one packet fewer the message could still fit:
        // it is awaited, and the gap to the next packet ends it.
        FaultCase{"MessageOverTheCapAnnounced", L"--header 32777,32760", ChannelError,
                  [] { return RefusedPacket(8); }, 10s},
        FaultCase{"MessageWithinTheCapAnnounced", L"--header 32776,32760", ChannelError,
                  [] { return PacketTimedOut(32776); }, 8s, 1500},
        FaultCase{"AnswerAfterTheRequestTimedOut", L"--delay-ms 1500", ResponseTimeout, NoFailure,
                  8s, Pendrel::NamedPipeChannel::kDefaultTimeLimitMs, 1, true}),
    [](const testing::TestParamInfo<FaultCase>& info) { return std::string(info.param.name); });

// A handler may cut its answers into packets of another size than the library's 32768
// bytes; the library reads them all, and adopts the larger sizes for what it sends. Five
// megabytes in 128-byte packets are 43,691 packets.
class HandlerPacketSize : public testing::TestWithParam<std::uint32_t> {};

TEST_P(HandlerPacketSize, CarriesMessagesBothWays) {
  FaultHost host(L"--packet-size " + std::to_wstring(GetParam()));
  ASSERT_EQ(host.StartResult(), Ok) << host.ErrorMessage();
  for (const std::size_t size : {0u, 100u, 70000u, 5u << 20}) {
    EXPECT_EQ(EchoProblem(host.handler, L"size" + std::to_wstring(size),
                          pendrel_test::PatternBytes(size)),
              "")
        << size << " bytes";
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, HandlerPacketSize,
                         // Linux's local sockets take packets up to their send buffer
                         // (208 KiB by default), so larger ones are no choice there.
                         testing::Values(128u, 1000u, 4096u, 65536u, 200000u),
                         [](const testing::TestParamInfo<std::uint32_t>& info) {
                           return "Bytes" + std::to_string(info.param);
                         });

// A few unrequested messages are kept and taken as answers in order: answers are matched to
// requests by order alone. Nothing breaks, and what nobody read goes with the handler.
TEST(HandlerFlood, AFewUnrequestedMessagesAreTakenAsAnswersInOrder) {
  std::uint32_t pid = 0;
  {
    FaultHost host(L"--flood 3");
    ASSERT_EQ(host.StartResult(), Ok) << host.ErrorMessage();
    pid = host.ProcessId();
    for (int k = 1; k <= 3; ++k) {
      Pendrel::CResponse response;
      ASSERT_EQ(host.handler.HandleRequest(FileRequest(L"asked", "x"), response), Ok);
      EXPECT_EQ(response.Parameters[L"Flood"], std::to_wstring(k));
    }
    EXPECT_EQ(host.handler.LastError(), Ok);
  }
  EXPECT_TRUE(ProcessGoneWithin(pid, 10s));
}

// A handler that floods an idle host with 300 unrequested 1 MiB messages: the host keeps no
// more than its bound of them, drops the pipe, and the next request reports the failure
// instead of taking one of them as its answer.
TEST(HandlerFlood, FloodPastTheBoundFailsThePipeWithoutGrowingTheHost) {
  const std::int64_t before = HeapBytesInUse();
  ResetHeapPeak();
  FaultHost host(L"--flood 300 --flood-bytes 1048576");
  ASSERT_EQ(host.StartResult(), Ok) << host.ErrorMessage();
  // The handler ends once its writes find the pipe closed.
  ASSERT_TRUE(ProcessGoneWithin(host.ProcessId(), 30s)) << "the host took the whole flood";
  if (HeapIsCounted()) {
    // Four kept, one more that broke the bound, and one being put together.
    EXPECT_LT(HeapPeakBytes() - before, 16 << 20);
  }
  Pendrel::CResponse response;
  EXPECT_EQ(host.handler.HandleRequest(FileRequest(L"asked", "x"), response), ChannelError);
  EXPECT_EQ(response.Parameters.count(L"Flood"), 0u);
  EXPECT_EQ(host.Failure(), RefusedPacket(Pendrel::kReceiveQueueFullCode)) << host.ErrorMessage();
  EXPECT_EQ(host.handler.GetResponseErrorMessage(),
            L"Ошибка чтения данных через NamedPipe (2) #1816\n");
  EXPECT_EQ(host.Received(), 0u) << "the request was sent after the failure";
}

// An answer nested a million levels deep is read without running out of stack, on the
// caller's thread, and leaves the handler usable.
TEST(HandlerDeepAnswer, MillionNestedArraysAreReadAndTheHandlerStaysUsable) {
  FaultHost host(L"--deep-answer 1000000");
  ASSERT_EQ(host.StartResult(), Ok) << host.ErrorMessage();
  for (int i = 0; i < 2; ++i) {
    Pendrel::CResponse response;
    ASSERT_EQ(host.handler.HandleRequest(FileRequest(L"deep", "x"), response), Ok);
    EXPECT_EQ(response.Status, 0);
    EXPECT_EQ(response.Parameters.count(L"deep"), 1u);
  }
}

}  // namespace
}  // namespace pendrel_reliability
