// The client end of a pipe for the handler programs the tests start (the test handler's
// broken modes, the fault handler): the bare transport driven packet by packet, framed by the
// library's own framing, so that a program can stop halfway through a message or write a
// packet the channel would never write. One thread at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "base/Deadline.h"
#include "pipe/detail/PacketFraming.h"
#include "pipe/detail/PipeTransport.h"

namespace pendrel_test {

class PacketPipe {
 public:
  // The packet size the library writes unless told otherwise.
  static constexpr std::uint32_t kDefaultPacketSize = 32768;

  // Writes packets of `packetSize` bytes (more than the 8-byte header).
  explicit PacketPipe(std::uint32_t packetSize = kDefaultPacketSize);

  // Opens the client end of `name`, trying again every 20 ms while the server end is not
  // there yet; false when `timeout` passes first.
  bool Connect(const std::wstring& name, std::chrono::milliseconds timeout);

  // The next whole message, whatever packet size the library writes; false once the pipe
  // has failed or a packet made no sense.
  bool ReadMessage(std::string& message);

  // Writes `packet` as one packet, as it stands; false when the pipe fails first.
  bool WritePacket(std::string_view packet);
  // Writes the first `count` packets of `message` framed as the channel frames it (all of
  // them when it has fewer); false when the pipe fails first.
  bool WritePackets(std::string message, std::size_t count);
  bool WriteMessage(std::string message) { return WritePackets(std::move(message), SIZE_MAX); }

  std::uint32_t PacketSize() const { return m_packetSize; }
  // Payload bytes one packet holds.
  std::size_t PayloadRoom() const { return m_packetSize - Pendrel::detail::kPacketHeaderSize; }

  // Returns once the pipe has failed (the library closed it) or `timeout` has passed.
  void WaitForEnd(std::chrono::milliseconds timeout = std::chrono::hours(24));

 private:
  void Pump(Pendrel::base::Deadline deadline);

  Pendrel::detail::PipeTransport m_transport;
  std::uint32_t m_packetSize;
  Pendrel::detail::MessageAssembler m_assembler;
  std::deque<std::string> m_packets;
  bool m_sent = false;
  bool m_failed = false;
};

}  // namespace pendrel_test
