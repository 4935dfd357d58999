// The test handler's client end for its broken modes: the bare transport, so that it can
// stop halfway through a message or write a packet the channel would never write.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "base/Deadline.h"
#include "pipe/detail/PipeTransport.h"

namespace pendrel_test {

class RawPipe {
 public:
  // The packet size the library uses; the test handler writes packets of this size.
  static constexpr std::size_t kPacketSize = 32768;
  static constexpr std::size_t kPayloadRoom = kPacketSize - 8;

  // Opens the client end of `name`, trying again every 20 ms until `timeout`.
  bool Connect(const std::wstring& name, std::chrono::milliseconds timeout);

  // The next whole message; false once the pipe has failed (the library closed it).
  bool ReadMessage(std::string& message);

  // Writes the first `count` packets of `message` framed as the channel frames it (all of
  // them when it has fewer); false when the pipe fails first.
  bool WritePackets(const std::string& message, std::size_t count);
  bool WriteMessage(const std::string& message) { return WritePackets(message, SIZE_MAX); }

  // Writes `packet` as one packet, as it stands.
  bool WritePacket(std::string_view packet);

  // Returns once the pipe has failed or `timeout` has passed.
  void WaitForEnd(std::chrono::milliseconds timeout);

  // A packet of kPacketSize bytes: the two header words as given, `payload`, zero filler.
  static std::string MakePacket(std::uint32_t remaining, std::uint32_t payloadLength,
                                std::string_view payload);

 private:
  void Pump(Pendrel::base::Deadline deadline);

  Pendrel::detail::PipeTransport m_transport;
  std::deque<std::string> m_packets;
  bool m_sent = false;
  bool m_failed = false;
};

}  // namespace pendrel_test
