// The channel's wire format without any pipe: cutting a message into packets and putting
// received packets back together, in the packet layout of protocol/HandlerProtocol.h.
//
// The channel's worker drives both classes; they touch no operating system resource, so
// tests and fuzz targets feed them packets directly. Neither is synchronised: one thread
// at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "protocol/HandlerProtocol.h"

namespace Pendrel::detail {

// The header layout is the protocol's; the framing below only applies it.
using protocol::GetLittleEndian32;
using protocol::kPacketHeaderSize;
using protocol::PutLittleEndian32;

// One packet as the pieces it is made of, for writing without copying the message: the
// header, a part of the message, then `filler` zero bytes up to the packet size.
struct PacketPieces {
  char header[kPacketHeaderSize];
  std::string_view payload;
  std::size_t filler;

  std::size_t Size() const { return kPacketHeaderSize + payload.size() + filler; }
};

// Cuts one message into packets of a fixed size. An empty message is one packet with both
// header words 0.
class PacketWriter {
 public:
  // Starts on `message`, cut into packets of `wirePacketSize` bytes (more than the header).
  void Begin(std::string message, std::uint32_t wirePacketSize);

  // Whether packets of the current message are left to write.
  bool Active() const { return m_next < m_count; }

  // The packet to write next, as its pieces: the payload refers to the message, which
  // stays put until PacketSent() ends it or Begin() replaces it.
  PacketPieces CurrentPieces() const;

  // The packet to write next in one piece (copied together). Valid until PacketSent() or
  // Begin().
  std::string_view CurrentPacket();

  // Moves to the next packet; true when the whole message has gone.
  bool PacketSent();

 private:
  std::string m_message;
  std::string m_buffer;
  std::size_t m_room = 0;
  std::size_t m_count = 0;
  std::size_t m_next = 0;
};

// Puts received packets back together. Headers come from another process and are checked
// before anything is copied or allocated: a payload must fit both the packet received and
// the packet size, and the message the headers announce must fit the size limit.
class MessageAssembler {
 public:
  enum class EStep {
    Partial,   // the packet was taken; more are to come
    Complete,  // the packet ended a message: TakeMessage() gives it
    Invalid,   // the header lies about the packet (the packet is not taken)
    TooLarge,  // the message would pass `maxMessageSize` (the packet is not taken)
  };

  // Takes one packet as received. `wirePacketSize` is the receiver's packet size, which
  // bounds the payload; `maxMessageSize` is the largest message accepted. After Invalid or
  // TooLarge the assembler is left as it was; the channel gives up on the pipe then.
  EStep Add(std::string_view packet, std::uint32_t wirePacketSize, std::uint64_t maxMessageSize);

  // Add in two halves, for a reader that receives the payload straight into the message:
  // checks the packet of `packetSize` bytes whose first bytes are `head` (its header, or all
  // of a shorter packet) as Add does, and on Partial or Complete extends the message by the
  // header's payload size and points `payload` at those bytes, which the caller then fills
  // with the packet's payload (the message counts them as received). On Invalid or TooLarge
  // nothing changes.
  EStep Accept(std::string_view head, std::size_t packetSize, std::uint32_t wirePacketSize,
               std::uint64_t maxMessageSize, char*& payload);

  // Whether a message has been started and not yet ended.
  bool InMessage() const { return m_remaining != 0; }
  // Packets still to come, as the last packet announced.
  std::uint32_t Remaining() const { return m_remaining; }
  // The message put together so far (the whole one after Complete); leaves none.
  std::string TakeMessage();

 private:
  std::string m_message;
  std::uint32_t m_remaining = 0;
};

}  // namespace Pendrel::detail
