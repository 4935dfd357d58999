// The packets on the wire, seen and forged by a raw transport client: sizes, headers,
// filler, reassembly, and headers that do not tell the truth.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "pipe/NamedPipeChannel.h"
#include "tests/pipe/PipeTestSupport.h"

namespace {

using Pendrel::EWaitResult;
using Pendrel::NamedPipeChannel;
using pendrel_test::ForgedPacket;
using pendrel_test::HeaderWord;
using pendrel_test::PatternBytes;
using pendrel_test::RawClient;
using pendrel_test::UniquePipeName;
using namespace std::chrono_literals;

constexpr std::size_t kPacket = 32768;
constexpr std::size_t kRoom = kPacket - 8;

const std::wstring kReadFailedInvalid = L"Ошибка чтения данных через NamedPipe (2) #13\n";
const std::wstring kReadFailedTooLarge = L"Ошибка чтения данных через NamedPipe (2) #8\n";

bool IsZero(std::string_view bytes) { return bytes.find_first_not_of('\0') == std::string::npos; }

// Whether the next message `server` receives within 5 s is `expected`.
testing::AssertionResult ReceivesMessage(NamedPipeChannel& server, const std::string& expected) {
  std::string received;
  if (server.WaitForMessage(received, 5s) != EWaitResult::Message) {
    return testing::AssertionFailure() << "no message came";
  }
  if (received != expected) {
    return testing::AssertionFailure() << "a message of " << received.size() << " bytes came, "
                                       << expected.size() << " expected";
  }
  return testing::AssertionSuccess();
}

TEST(PipeWire, SendsEmptyMessageAsOnePacketWithBothWordsZero) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  server.Post("");
  server.Post("next");

  std::string packet;
  ASSERT_TRUE(client.Read(packet));
  ASSERT_EQ(packet.size(), kPacket);
  EXPECT_EQ(HeaderWord(packet, 0), 0u);
  EXPECT_EQ(HeaderWord(packet, 1), 0u);
  EXPECT_TRUE(IsZero(packet));
  // The next message starts a packet of its own.
  ASSERT_TRUE(client.Read(packet));
  EXPECT_EQ(HeaderWord(packet, 1), 4u);
  EXPECT_EQ(packet.substr(8, 4), "next");
}

TEST(PipeWire, DeliversEmptyPacketAsEmptyMessage) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  ASSERT_TRUE(client.Write(ForgedPacket(0, 0, "", kPacket)));
  std::string message = "untouched";
  ASSERT_EQ(server.WaitForMessage(message, 5s), EWaitResult::Message);
  EXPECT_EQ(message, "");
  EXPECT_FALSE(server.HasMessage());
}

TEST(PipeWire, SendsMessageOf32760BytesInOnePacket) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  const std::string message = PatternBytes(kRoom, 1);
  server.Post(message);
  server.Post("x");

  std::string packet;
  ASSERT_TRUE(client.Read(packet));
  ASSERT_EQ(packet.size(), kPacket);
  EXPECT_EQ(HeaderWord(packet, 0), 0u);
  EXPECT_EQ(HeaderWord(packet, 1), 32760u);
  EXPECT_TRUE(packet.substr(8) == message);
  ASSERT_TRUE(client.Read(packet));
  EXPECT_EQ(HeaderWord(packet, 0), 0u);
  EXPECT_EQ(HeaderWord(packet, 1), 1u);
}

TEST(PipeWire, SplitsMessageAt32760Bytes) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  const std::string message = PatternBytes(kRoom + 1, 2);
  server.Post(message);

  std::string first;
  std::string second;
  ASSERT_TRUE(client.Read(first));
  ASSERT_TRUE(client.Read(second));
  ASSERT_EQ(first.size(), kPacket);
  ASSERT_EQ(second.size(), kPacket);
  EXPECT_EQ(HeaderWord(first, 0), 1u);
  EXPECT_EQ(HeaderWord(first, 1), 32760u);
  EXPECT_EQ(HeaderWord(second, 0), 0u);
  EXPECT_EQ(HeaderWord(second, 1), 1u);
  EXPECT_TRUE(first.substr(8) == message.substr(0, kRoom));
  EXPECT_EQ(second[8], message.back());
  // The filler is cleared, not left over from the packet before.
  EXPECT_TRUE(IsZero(std::string_view(second).substr(9)));
}

TEST(PipeWire, ReassemblesMessageFromPackets) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  const std::string message = PatternBytes(2 * kRoom + 5, 3);
  ASSERT_TRUE(client.Write(ForgedPacket(2, kRoom, message.substr(0, kRoom), kPacket)));
  ASSERT_TRUE(client.Write(ForgedPacket(1, kRoom, message.substr(kRoom, kRoom), kPacket)));
  EXPECT_FALSE(server.HasMessage());
  // The filler of the last packet is not part of the message.
  ASSERT_TRUE(client.Write(ForgedPacket(0, 5, message.substr(2 * kRoom) + "junk", kPacket)));
  EXPECT_TRUE(ReceivesMessage(server, message));
}

// A message of several packets is put together by the worker, also when a waiting caller read
// its first packet (Linux) and gave up waiting before the rest came: it comes whole, once, in
// order, and the caller after it reads the next message again.
TEST(PipeWire, AMessageBegunForOneWaitIsFinishedForTheNext) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  const std::string message = PatternBytes(2 * kRoom + 10, 6);
  ASSERT_TRUE(client.Write(ForgedPacket(2, kRoom, message.substr(0, kRoom), kPacket)));
  std::string taken;
  ASSERT_EQ(server.WaitForMessage(taken, 50ms), EWaitResult::TimedOut);
  ASSERT_TRUE(client.Write(ForgedPacket(1, kRoom, message.substr(kRoom, kRoom), kPacket)));
  ASSERT_EQ(server.WaitForMessage(taken, 50ms), EWaitResult::TimedOut);
  ASSERT_TRUE(client.Write(ForgedPacket(0, 10, message.substr(2 * kRoom), kPacket)));
  ASSERT_TRUE(client.WriteMessage("next"));
  ASSERT_EQ(server.WaitForMessage(taken, 10s), EWaitResult::Message);
  EXPECT_TRUE(taken == message) << taken.size() << " bytes";
  ASSERT_EQ(server.WaitForMessage(taken, 10s), EWaitResult::Message);
  EXPECT_EQ(taken, "next");
  EXPECT_FALSE(server.HasError());
}

TEST(PipeWire, ReportsSenderThatStopsMidMessageWithPacketsStillExpected) {
  NamedPipeChannel server;
  server.SetTimeLimitMs(300);
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  const std::string part = PatternBytes(kRoom, 4);
  ASSERT_TRUE(client.Write(ForgedPacket(3, kRoom, part, kPacket)));
  ASSERT_TRUE(client.Write(ForgedPacket(2, kRoom, part, kPacket)));
  const auto silent = std::chrono::steady_clock::now();

  std::string message;
  ASSERT_EQ(server.WaitForMessage(message, 10s), EWaitResult::Error);
  EXPECT_GE(std::chrono::steady_clock::now() - silent, 250ms);
  EXPECT_EQ(server.TakeErrorText(),
            L"Ошибка чтения данных через NamedPipe - вышло время ожидания пакета: 0 / 2\n");
  EXPECT_FALSE(server.IsConnected());
  // The worker has closed its end.
  EXPECT_TRUE(client.WaitForFailure());
}

struct LyingPacketCase {
  const char* what;
  std::uint32_t remaining;
  std::uint32_t payload;
  std::size_t packetBytes;
  std::uint64_t maxMessage;
  const std::wstring* expected;
};

void PrintTo(const LyingPacketCase& c, std::ostream* out) { *out << c.what; }

class PipeWireLyingHeader : public testing::TestWithParam<LyingPacketCase> {};

TEST_P(PipeWireLyingHeader, IsReadFailure) {
  const LyingPacketCase& c = GetParam();
  NamedPipeChannel server;
  server.SetMaxMessageSize(c.maxMessage);
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  // The server end may drop the connection before the client has seen its write complete.
  client.Write(ForgedPacket(c.remaining, c.payload, "", c.packetBytes));
  std::string message;
  ASSERT_EQ(server.WaitForMessage(message, 5s), EWaitResult::Error) << c.what;
  EXPECT_EQ(server.TakeErrorText(), *c.expected) << c.what;
  EXPECT_FALSE(server.HasMessage());
}

INSTANTIATE_TEST_SUITE_P(
    Headers, PipeWireLyingHeader,
    testing::Values(LyingPacketCase{"payload longer than the packet size allows", 0, 32761, kPacket,
                                    NamedPipeChannel::kDefaultMaxMessageSize, &kReadFailedInvalid},
                    LyingPacketCase{"payload longer than the bytes received", 0, 100, 64,
                                    NamedPipeChannel::kDefaultMaxMessageSize, &kReadFailedInvalid},
                    LyingPacketCase{"packet shorter than a header", 0, 0, 5,
                                    NamedPipeChannel::kDefaultMaxMessageSize, &kReadFailedInvalid},
                    LyingPacketCase{"four billion packets announced", 0xFFFFFFFFu, 32760, kPacket,
                                    NamedPipeChannel::kDefaultMaxMessageSize, &kReadFailedTooLarge},
                    LyingPacketCase{"one byte over the limit announced", 1, 32760, kPacket, 32760,
                                    &kReadFailedTooLarge},
                    LyingPacketCase{"one byte over the limit in the packet", 0, 100, kPacket, 99,
                                    &kReadFailedTooLarge}));

TEST(PipeWire, AcceptsMessageOfExactlyTheLimit) {
  NamedPipeChannel server;
  server.SetMaxMessageSize(kRoom + 1);
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  const std::string message = PatternBytes(kRoom + 1, 5);
  ASSERT_TRUE(client.Write(ForgedPacket(1, kRoom, message.substr(0, kRoom), kPacket)));
  ASSERT_TRUE(client.Write(ForgedPacket(0, 1, message.substr(kRoom), kPacket)));
  EXPECT_TRUE(ReceivesMessage(server, message));
}

TEST(PipeWire, StopsMessageThatNeverEndsAtTheLimit) {
  NamedPipeChannel server;
  server.SetMaxMessageSize(100000);
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  // Always "one more to come": four packets pass the limit.
  const std::string packet = ForgedPacket(1, kRoom, PatternBytes(kRoom, 6), kPacket);
  for (int i = 0; i < 4; ++i) client.Write(packet);
  std::string message;
  ASSERT_EQ(server.WaitForMessage(message, 5s), EWaitResult::Error);
  EXPECT_EQ(server.TakeErrorText(), kReadFailedTooLarge);
}

TEST(PipeWire, RefusesPacketLargerThanAnyAllowedMessage) {
  NamedPipeChannel server;
  server.SetMaxMessageSize(1000);
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  client.Write(ForgedPacket(0, 10, "0123456789", 2 * kPacket));
  std::string message;
  ASSERT_EQ(server.WaitForMessage(message, 5s), EWaitResult::Error);
  EXPECT_EQ(server.TakeErrorText(), kReadFailedTooLarge);
  EXPECT_EQ(server.PacketSize(), 32768u);
}

TEST(PipeWire, ServerEndRaisesPacketSizeToLargerClientPackets) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  constexpr std::size_t kLarge = 65536;
  const std::string message = PatternBytes(kLarge - 8, 7);
  ASSERT_TRUE(client.Write(ForgedPacket(0, kLarge - 8, message, kLarge)));
  EXPECT_TRUE(ReceivesMessage(server, message));
  EXPECT_EQ(server.PacketSize(), kLarge);

  // From now on the server end writes packets of that size, too.
  server.Post(PatternBytes(100000, 8));
  std::string first;
  std::string second;
  ASSERT_TRUE(client.Read(first));
  ASSERT_TRUE(client.Read(second));
  EXPECT_EQ(first.size(), kLarge);
  EXPECT_EQ(HeaderWord(first, 0), 1u);
  EXPECT_EQ(HeaderWord(first, 1), kLarge - 8);
  EXPECT_EQ(HeaderWord(second, 1), 100000 - (kLarge - 8));
}

TEST(PipeWire, NeverSendsPacketsSmallerThan128Bytes) {
  NamedPipeChannel server;
  server.SetPacketSize(16);
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  server.Post(PatternBytes(121, 9));
  std::string first;
  std::string second;
  ASSERT_TRUE(client.Read(first));
  ASSERT_TRUE(client.Read(second));
  EXPECT_EQ(first.size(), 128u);
  EXPECT_EQ(HeaderWord(first, 0), 1u);
  EXPECT_EQ(HeaderWord(first, 1), 120u);
  EXPECT_EQ(HeaderWord(second, 0), 0u);
  EXPECT_EQ(HeaderWord(second, 1), 1u);
}

}  // namespace
