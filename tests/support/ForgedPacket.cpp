#include "tests/support/ForgedPacket.h"

#include <algorithm>  // std::min

#include "pipe/detail/PacketFraming.h"

namespace pendrel_test {

using Pendrel::detail::kPacketHeaderSize;

std::string ForgedPacket(std::uint32_t remaining, std::uint32_t payloadLength,
                         std::string_view payload, std::size_t packetSize) {
  std::string packet(std::max<std::size_t>(packetSize, kPacketHeaderSize), '\0');
  Pendrel::detail::PutLittleEndian32(packet.data(), remaining);
  Pendrel::detail::PutLittleEndian32(packet.data() + 4, payloadLength);
  const std::size_t room = packet.size() - kPacketHeaderSize;
  packet.replace(kPacketHeaderSize, std::min(payload.size(), room), payload.substr(0, room));
  packet.resize(packetSize);
  return packet;
}

std::uint32_t HeaderWord(std::string_view packet, int index) {
  if (packet.size() < 4u * index + 4) return 0;
  return Pendrel::detail::GetLittleEndian32(packet.substr(4 * index, 4).data());
}

}  // namespace pendrel_test
