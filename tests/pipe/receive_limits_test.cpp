// What a server end keeps of what a client sends: messages that arrive unasked are kept up to
// a bound of messages and bytes, past which the channel fails and drops them; a packet larger
// than the server end's cap is refused instead of having its size adopted.
#include <gtest/gtest.h>

#include <algorithm>  // std::max
#include <chrono>
#include <cstdint>
#include <string>

#include "pipe/ChannelFailure.h"
#include "pipe/NamedPipeChannel.h"
#include "tests/pipe/PipeTestSupport.h"
#include "tests/support/WaitFor.h"

namespace {

using Pendrel::CChannelFailure;
using Pendrel::EChannelFailure;
using Pendrel::EWaitResult;
using Pendrel::NamedPipeChannel;
using pendrel_test::ForgedPacket;
using pendrel_test::PatternBytes;
using pendrel_test::RawClient;
using pendrel_test::UniquePipeName;
using namespace std::chrono_literals;

const CChannelFailure kQueueFull{EChannelFailure::ReadFailed, Pendrel::kReceiveQueueFullCode};
const CChannelFailure kPacketTooLarge{EChannelFailure::ReadFailed, Pendrel::kPacketTooLargeCode};

// Whether `server` holds `count` received messages within 5 s.
bool HoldsMessages(const NamedPipeChannel& server, std::size_t count) {
  return pendrel_test::WaitFor([&] { return server.ReceivedCount() >= count; }, 5s);
}

// Whether `server` fails with a full receive queue, seen by its client as the pipe going,
// within 5 s, having dropped what it held.
testing::AssertionResult FailsWithFullQueue(const NamedPipeChannel& server, RawClient& client) {
  if (!client.WaitForFailure(5s)) return testing::AssertionFailure() << "the pipe stayed";
  if (!pendrel_test::WaitFor([&] { return server.HasError(); }, 5s)) {
    return testing::AssertionFailure() << "no failure was set";
  }
  if (server.Failure() != kQueueFull) {
    return testing::AssertionFailure()
           << "another failure: " << static_cast<int>(server.Failure().Failure) << " #"
           << server.Failure().Code;
  }
  if (server.ReceivedCount() != 0) {
    return testing::AssertionFailure() << server.ReceivedCount() << " messages kept";
  }
  return testing::AssertionSuccess();
}

TEST(PipeReceiveLimits, HasItsDefaults) {
  const NamedPipeChannel channel;
  EXPECT_EQ(channel.MaxQueuedMessages(), 4u);
  EXPECT_EQ(channel.MaxQueuedBytes(), std::uint64_t{64} << 20);
  EXPECT_EQ(channel.MaxPacketSize(), 1u << 20);
}

TEST(PipeReceiveLimits, KeepsUnaskedMessagesUpToTheBoundInOrder) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(client.WriteMessage(PatternBytes(100, i)));
  ASSERT_TRUE(HoldsMessages(server, 4));
  for (int i = 0; i < 4; ++i) {
    std::string message;
    ASSERT_TRUE(server.TakeMessage(message)) << i;
    EXPECT_EQ(message, PatternBytes(100, i)) << i;
  }
  // What was taken no longer counts: four more fit.
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(client.WriteMessage(PatternBytes(100, 10 + i)));
  ASSERT_TRUE(HoldsMessages(server, 4));
  EXPECT_FALSE(server.HasError());
  EXPECT_TRUE(server.IsConnected());
}

TEST(PipeReceiveLimits, OneMessagePastTheCountFailsTheChannelAndDropsTheQueue) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(client.WriteMessage(PatternBytes(100, i)));
  ASSERT_TRUE(FailsWithFullQueue(server, client));
  EXPECT_EQ(server.ErrorText(), L"Ошибка чтения данных через NamedPipe (2) #1816\n");
  // The next wait reports the failure, never one of the dropped messages.
  std::string message;
  EXPECT_EQ(server.WaitForMessage(message, 5s), EWaitResult::Error);
  EXPECT_EQ(server.State(), Pendrel::EChannelState::Failed);
}

TEST(PipeReceiveLimits, UnaskedBytesPastTheBoundFailTheChannel) {
  NamedPipeChannel server;
  server.SetMaxQueuedBytes(100000);
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  ASSERT_TRUE(client.WriteMessage(PatternBytes(60000, 1)));
  ASSERT_TRUE(HoldsMessages(server, 1));
  EXPECT_FALSE(server.HasError());
  client.WriteMessage(PatternBytes(60000, 2));
  EXPECT_TRUE(FailsWithFullQueue(server, client));
}

TEST(PipeReceiveLimits, TheFirstMessageAfterAPostIsAskedFor) {
  NamedPipeChannel server;
  server.SetMaxQueuedMessages(0);
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  // An answer that comes before its exchange waits is kept...
  server.Post("question");
  std::string packet;
  ASSERT_TRUE(client.Read(packet));
  ASSERT_TRUE(client.WriteMessage("answer"));
  ASSERT_TRUE(HoldsMessages(server, 1));
  EXPECT_FALSE(server.HasError());
  std::string message;
  ASSERT_EQ(server.WaitForMessage(message, 5s), EWaitResult::Message);
  EXPECT_EQ(message, "answer");
  // ...a second one nobody asked for is not.
  client.WriteMessage("unasked");
  EXPECT_TRUE(FailsWithFullQueue(server, client));
}

// Packets of `bytes` from a client of a server end whose packet size is 32768 and whose cap
// is 65536: taken and their size adopted up to the cap, refused past it.
class PipePacketCap : public testing::TestWithParam<std::uint32_t> {};

TEST_P(PipePacketCap, AdoptsUpToTheCapAndRefusesPastIt) {
  const std::uint32_t bytes = GetParam();
  NamedPipeChannel server;
  server.SetMaxPacketSize(65536);
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  client.Write(ForgedPacket(0, 5, "hello", bytes));
  std::string message;
  const EWaitResult result = server.WaitForMessage(message, 5s);
  if (bytes <= 65536) {
    ASSERT_EQ(result, EWaitResult::Message);
    EXPECT_EQ(message, "hello");
    EXPECT_EQ(server.PacketSize(), std::max(bytes, 32768u));
  } else {
    ASSERT_EQ(result, EWaitResult::Error);
    EXPECT_EQ(server.Failure(), kPacketTooLarge);
    EXPECT_EQ(server.ErrorText(), L"Ошибка чтения данных через NamedPipe (2) #122\n");
    EXPECT_EQ(server.PacketSize(), 32768u) << "the refused size was adopted";
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, PipePacketCap, testing::Values(1000u, 65536u, 65537u, 200000u),
                         [](const testing::TestParamInfo<std::uint32_t>& info) {
                           return "Bytes" + std::to_string(info.param);
                         });

TEST(PipeReceiveLimits, CapNeverRefusesPacketsOfTheServersOwnSize) {
  NamedPipeChannel server;
  server.SetPacketSize(65536);
  server.SetMaxPacketSize(1000);
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  ASSERT_TRUE(client.Write(ForgedPacket(0, 5, "hello", 65536)));
  std::string message;
  ASSERT_EQ(server.WaitForMessage(message, 5s), EWaitResult::Message);
  EXPECT_EQ(message, "hello");
}

}  // namespace
