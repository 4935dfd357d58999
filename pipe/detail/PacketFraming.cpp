#include "pipe/detail/PacketFraming.h"

#include <algorithm>  // std::min, std::max
#include <cstring>    // std::memcpy
#include <utility>    // std::exchange, std::move

#include "base/LargeBuffer.h"

namespace Pendrel::detail {

void PacketWriter::Begin(std::string message, std::uint32_t wirePacketSize) {
  m_message = std::move(message);
  m_room = wirePacketSize - kPacketHeaderSize;
  m_count = m_message.empty() ? 1 : (m_message.size() - 1) / m_room + 1;
  m_next = 0;
}

PacketPieces PacketWriter::CurrentPieces() const {
  const std::size_t offset = m_next * m_room;
  const std::size_t length = std::min(m_room, m_message.size() - offset);
  PacketPieces pieces{};
  // A message would need more than 2^32 packets (hundreds of GiB) to overflow the count.
  protocol::WritePacketHeader(pieces.header, {static_cast<std::uint32_t>(m_count - m_next - 1),
                                              static_cast<std::uint32_t>(length)});
  pieces.payload = std::string_view(m_message.data() + offset, length);
  // The filler is zeros, so that no earlier bytes of this process leave it.
  pieces.filler = m_room - length;
  return pieces;
}

std::string_view PacketWriter::CurrentPacket() {
  const PacketPieces pieces = CurrentPieces();
  m_buffer.assign(pieces.Size(), '\0');
  char* const packet = m_buffer.data();
  std::memcpy(packet, pieces.header, kPacketHeaderSize);
  if (!pieces.payload.empty()) {
    std::memcpy(packet + kPacketHeaderSize, pieces.payload.data(), pieces.payload.size());
  }
  return m_buffer;
}

bool PacketWriter::PacketSent() {
  ++m_next;
  if (Active()) return false;
  // Let go of the message's memory now, not when the next message comes: assigning an
  // empty string would keep the capacity (libstdc++ reuses it).
  std::string().swap(m_message);
  return true;
}

MessageAssembler::EStep MessageAssembler::Add(std::string_view packet, std::uint32_t wirePacketSize,
                                              std::uint64_t maxMessageSize) {
  char* payload = nullptr;
  const EStep step = Accept(packet, packet.size(), wirePacketSize, maxMessageSize, payload);
  if (step == EStep::Partial || step == EStep::Complete) {
    const std::size_t length = protocol::ReadPacketHeader(packet.data()).payload;
    if (length > 0) std::memcpy(payload, packet.data() + kPacketHeaderSize, length);
  }
  return step;
}

MessageAssembler::EStep MessageAssembler::Accept(std::string_view head, std::size_t packetSize,
                                                 std::uint32_t wirePacketSize,
                                                 std::uint64_t maxMessageSize, char*& payloadAt) {
  constexpr std::size_t kHeader = kPacketHeaderSize;
  if (packetSize < kHeader || head.size() < kHeader) return EStep::Invalid;
  const auto [remaining, payload] = protocol::ReadPacketHeader(head.data());
  const std::uint64_t room = wirePacketSize - kHeader;
  if (payload > packetSize - kHeader || payload > room) return EStep::Invalid;

  // The smallest message these headers allow: the packets still to come are full but the
  // last, which holds at least one byte. They are as large as this one, not as ours: the
  // sender chooses its packet size, and a smaller one must not make a message that fits
  // look too large.
  const std::uint64_t have = std::uint64_t{m_message.size()} + payload;
  if (have > maxMessageSize) return EStep::TooLarge;
  const std::uint64_t senderRoom = std::min<std::uint64_t>(packetSize - kHeader, room);
  if (remaining > 0) {
    // Packets with no room cannot carry the byte the last one must hold.
    if (senderRoom == 0) return EStep::Invalid;
    if (have == maxMessageSize || remaining - 1 > (maxMessageSize - have - 1) / senderRoom) {
      return EStep::TooLarge;
    }
  }

  // Grown by hand, at least doubling, so that the capacity never passes the limit nor twice
  // what has arrived. The steps are the announced size (the packets to come full) halved as
  // often as what has arrived allows, so that the last step lands on the whole message:
  // growing by plain doubling from the first packet's size often falls a few bytes short
  // and then copies everything once more into a block twice too large. A header that
  // lies only changes where the steps fall, never how far ahead of the data they reach.
  const auto needed = static_cast<std::size_t>(have);
  if (needed > m_message.capacity()) {
    // At most 2^32 packets of at most 2^32 bytes: the product stays within 64 bits.
    const std::uint64_t announced = have + std::uint64_t{remaining} * senderRoom;
    std::uint64_t step = announced;
    while ((step + 1) / 2 >= needed) step = (step + 1) / 2;
    const std::uint64_t doubled = std::max<std::uint64_t>(needed, 2 * m_message.capacity());
    // Large blocks get huge pages before the payload lands in them.
    base::ReserveLarge(
        m_message, static_cast<std::size_t>(std::max<std::uint64_t>(
                       needed, std::min({maxMessageSize, announced, std::max(step, doubled)}))));
  }
  const std::size_t offset = m_message.size();
  // Within the capacity just checked: the cleared bytes stay in the cache until the payload
  // overwrites them.
  m_message.resize(needed);
  payloadAt = m_message.data() + offset;
  m_remaining = remaining;
  return remaining == 0 ? EStep::Complete : EStep::Partial;
}

std::string MessageAssembler::TakeMessage() { return std::exchange(m_message, std::string()); }

}  // namespace Pendrel::detail
