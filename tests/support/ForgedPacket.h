// Packets as the tests see them on the wire. Well-formed packets come from the library's own
// framing (pipe/detail/PacketFraming.h); ForgedPacket is for the packets the channel would
// never write, whose header words are chosen by the test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace pendrel_test {

// A packet of `packetSize` bytes: the header words `remaining` (packets still to come) and
// `payloadLength` as given, possibly lying, then `payload`, then zeros. A payload longer than
// the packet holds is cut at the packet's end.
std::string ForgedPacket(std::uint32_t remaining, std::uint32_t payloadLength,
                         std::string_view payload, std::size_t packetSize);

// Header word `index` (0: packets still to come, 1: payload bytes) of a received packet.
std::uint32_t HeaderWord(std::string_view packet, int index);

}  // namespace pendrel_test
