// The packet reassembly on its own, fed packets directly: a sender may use packets smaller
// than the receiver's, and the size check must judge a message by the sender's packets.
#include <gtest/gtest.h>

#include <string>

#include "pipe/detail/PacketFraming.h"

namespace {

using Pendrel::detail::MessageAssembler;
using Pendrel::detail::PacketWriter;
using EStep = MessageAssembler::EStep;

// Cuts `message` into packets of `senderSize` and feeds them to an assembler whose own
// packets are `receiverSize` bytes and whose limit is `limit`; the step that ended it.
EStep Deliver(const std::string& message, std::uint32_t senderSize, std::uint32_t receiverSize,
              std::uint64_t limit, std::string& received) {
  PacketWriter writer;
  MessageAssembler assembler;
  writer.Begin(message, senderSize);
  EStep step = EStep::Partial;
  while (writer.Active() && step == EStep::Partial) {
    step = assembler.Add(writer.CurrentPacket(), receiverSize, limit);
    writer.PacketSent();
  }
  if (step == EStep::Complete) received = assembler.TakeMessage();
  return step;
}

struct SizeCase {
  std::size_t messageBytes;
  std::uint32_t senderPacket;
  std::uint64_t limit;
  EStep expected;
};

class PacketFramingLimit : public testing::TestWithParam<SizeCase> {};

TEST_P(PacketFramingLimit, JudgesTheMessageByTheSendersPackets) {
  const SizeCase& c = GetParam();
  const std::string message(c.messageBytes, 'm');
  std::string received;
  EXPECT_EQ(Deliver(message, c.senderPacket, 32768, c.limit, received), c.expected);
  if (c.expected == EStep::Complete) {
    EXPECT_TRUE(received == message);
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, PacketFramingLimit,
                         testing::Values(
                             // 128-byte packets carry 120 bytes: 1,000 bytes take 9 of them.
                             SizeCase{1000, 128, 1000, EStep::Complete},
                             SizeCase{1001, 128, 1000, EStep::TooLarge},
                             SizeCase{5 << 20, 128, std::uint64_t{1} << 30, EStep::Complete},
                             SizeCase{100000, 4096, 100000, EStep::Complete},
                             SizeCase{100001, 4096, 100000, EStep::TooLarge},
                             SizeCase{100000, 32768, 100000, EStep::Complete},
                             SizeCase{100001, 32768, 100000, EStep::TooLarge}));

TEST(PacketFraming, MorePacketsAnnouncedInPacketsWithNoRoomIsInvalid) {
  std::string packet(8, '\0');
  packet[0] = 1;  // one more to come, yet no packet of this size can hold a byte
  MessageAssembler assembler;
  EXPECT_EQ(assembler.Add(packet, 32768, 1 << 20), EStep::Invalid);
}

TEST(PacketFraming, EmptyHeaderOnlyPacketIsAnEmptyMessage) {
  MessageAssembler assembler;
  EXPECT_EQ(assembler.Add(std::string(8, '\0'), 32768, 1 << 20), EStep::Complete);
  EXPECT_EQ(assembler.TakeMessage(), "");
}

}  // namespace
