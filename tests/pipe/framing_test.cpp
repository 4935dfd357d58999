// Reassembly without a pipe: the message grows with what arrives, and its last growth lands
// on the whole message instead of on a block twice its size.
#include "pipe/detail/PacketFraming.h"

#include <gtest/gtest.h>

#include <algorithm>  // std::copy_n
#include <cstdint>
#include <string>

namespace {

using Pendrel::detail::MessageAssembler;
using Pendrel::detail::PacketPieces;
using Pendrel::detail::PacketWriter;
using Pendrel::detail::PutLittleEndian32;

constexpr std::uint32_t kPacket = 32768;
constexpr std::uint32_t kRoom = kPacket - 8;
constexpr std::uint64_t kLimit = std::uint64_t{1} << 30;

std::string Packet(std::uint32_t remaining, const std::string& payload) {
  std::string packet(kPacket, '\0');
  PutLittleEndian32(&packet[0], remaining);
  PutLittleEndian32(&packet[4], static_cast<std::uint32_t>(payload.size()));
  packet.replace(8, payload.size(), payload);
  return packet;
}

// Feeds `size` bytes of 'm' in packets of the default size and returns the message.
std::string Reassemble(std::size_t size) {
  MessageAssembler assembler;
  const std::size_t count = size == 0 ? 1 : (size - 1) / kRoom + 1;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t length = i + 1 < count ? kRoom : size - i * kRoom;
    const MessageAssembler::EStep step =
        assembler.Add(Packet(static_cast<std::uint32_t>(count - i - 1), std::string(length, 'm')),
                      kPacket, kLimit);
    EXPECT_EQ(step,
              i + 1 < count ? MessageAssembler::EStep::Partial : MessageAssembler::EStep::Complete);
  }
  return assembler.TakeMessage();
}

TEST(PacketFraming, ReassemblyEndsWithoutABlockTwiceTheMessage) {
  // Just past 2048 full packets: plain doubling from one packet's payload ends a few bytes
  // short of this and then takes a block of twice the size.
  for (const std::size_t size : {std::size_t{2048} * kRoom + 1, std::size_t{1} << 26,
                                 std::size_t{5} * kRoom + 3, std::size_t{kRoom}, std::size_t{7}}) {
    const std::string message = Reassemble(size);
    ASSERT_EQ(message.size(), size);
    EXPECT_EQ(message.find_first_not_of('m'), std::string::npos);
    // The last packet is announced as possibly full: up to a packet's room to spare.
    EXPECT_LT(message.capacity(), size + 2 * kRoom) << size;
  }
}

TEST(PacketFraming, GrowsNoFurtherThanTwiceWhatArrivedWhateverTheHeaderAnnounces) {
  MessageAssembler assembler;
  // One packet announcing 32768 more: the message holds only what came.
  ASSERT_EQ(assembler.Add(Packet(32768, std::string(kRoom, 'x')), kPacket, kLimit),
            MessageAssembler::EStep::Partial);
  ASSERT_EQ(assembler.Add(Packet(32767, std::string(kRoom, 'x')), kPacket, kLimit),
            MessageAssembler::EStep::Partial);
  const std::string partial = assembler.TakeMessage();
  EXPECT_EQ(partial.size(), 2u * kRoom);
  EXPECT_LT(partial.capacity(), 4u * kRoom);
}

// The pieces of a packet are the packet: header, a view of the message, zero filler.
TEST(PacketFraming, PiecesMakeTheSamePacketAsTheWholeOne) {
  const std::string message = std::string(kRoom, 'a') + "tail";
  PacketWriter writer;
  writer.Begin(message, kPacket);
  for (std::size_t index = 0; writer.Active(); ++index, writer.PacketSent()) {
    const PacketPieces pieces = writer.CurrentPieces();
    ASSERT_EQ(pieces.Size(), kPacket);
    // Not a copy: the payload lies in the writer's message.
    EXPECT_EQ(pieces.payload, index == 0 ? std::string(kRoom, 'a') : std::string("tail"));
    const std::string joined = std::string(pieces.header, sizeof(pieces.header)) +
                               std::string(pieces.payload) + std::string(pieces.filler, '\0');
    EXPECT_EQ(joined, std::string(writer.CurrentPacket())) << index;
  }
}

// A reader that receives the payload itself is given room for exactly the header's payload,
// after what came before; the checks are those of Add.
TEST(PacketFraming, AcceptGivesRoomForThePayloadAfterWhatArrived) {
  MessageAssembler assembler;
  const std::string first = Packet(1, "hello, ");
  char* payload = nullptr;
  ASSERT_EQ(assembler.Accept(std::string_view(first).substr(0, 8), first.size(), kPacket, kLimit,
                             payload),
            MessageAssembler::EStep::Partial);
  ASSERT_NE(payload, nullptr);
  std::copy_n("hello, ", 7, payload);
  const std::string last = Packet(0, "world");
  ASSERT_EQ(assembler.Accept(last, last.size(), kPacket, kLimit, payload),
            MessageAssembler::EStep::Complete);
  std::copy_n("world", 5, payload);
  EXPECT_EQ(assembler.TakeMessage(), "hello, world");

  // A header announcing more payload than its packet holds is refused, nothing taken.
  char* untouched = nullptr;
  EXPECT_EQ(assembler.Accept(last, 12, kPacket, kLimit, untouched),
            MessageAssembler::EStep::Invalid);
  EXPECT_EQ(untouched, nullptr);
  EXPECT_EQ(assembler.Accept(std::string_view(last).substr(0, 5), last.size(), kPacket, kLimit,
                             untouched),
            MessageAssembler::EStep::Invalid)
      << "a head shorter than a header";
  EXPECT_FALSE(assembler.InMessage());
}

}  // namespace
