#include "tests/handler/test_handler/RawPipe.h"

#include <algorithm>  // std::min
#include <thread>

namespace pendrel_test {

using Pendrel::base::Clock;
using Pendrel::base::Deadline;

namespace {

// Packets from the library are never near this; a larger one is a failure.
constexpr std::size_t kMaxPacket = std::size_t{1} << 30;

std::uint32_t HeaderWord(std::string_view packet, std::size_t offset) {
  std::uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;) {
    value = (value << 8) | static_cast<unsigned char>(packet[offset + i]);
  }
  return value;
}

}  // namespace

bool RawPipe::Connect(const std::wstring& name, std::chrono::milliseconds timeout) {
  const Deadline deadline = Clock::now() + timeout;
  while (m_transport.Connect(name) != 0) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

void RawPipe::Pump(Deadline deadline) {
  const Pendrel::detail::TransportEvents events =
      m_transport.Wait(deadline, kPacketSize, kMaxPacket);
  if (events.received) m_packets.emplace_back(m_transport.Packet());
  if (events.sent) m_sent = true;
  if (events.failure != Pendrel::detail::ETransportFailure::None) m_failed = true;
}

bool RawPipe::ReadMessage(std::string& message) {
  message.clear();
  for (;;) {
    while (m_packets.empty()) {
      if (m_failed) return false;
      Pump(Deadline::max());
    }
    const std::string packet = std::move(m_packets.front());
    m_packets.pop_front();
    if (packet.size() < 8) return false;
    const std::uint32_t remaining = HeaderWord(packet, 0);
    const std::size_t payload = std::min<std::size_t>(HeaderWord(packet, 4), packet.size() - 8);
    message.append(packet, 8, payload);
    if (remaining == 0) return true;
  }
}

std::string RawPipe::MakePacket(std::uint32_t remaining, std::uint32_t payloadLength,
                                std::string_view payload) {
  std::string packet(kPacketSize, '\0');
  for (std::size_t i = 0; i < 4; ++i) {
    packet[i] = static_cast<char>((remaining >> (8 * i)) & 0xFF);
    packet[4 + i] = static_cast<char>((payloadLength >> (8 * i)) & 0xFF);
  }
  packet.replace(8, std::min(payload.size(), kPayloadRoom), payload.substr(0, kPayloadRoom));
  return packet;
}

bool RawPipe::WritePacket(std::string_view packet) {
  m_sent = false;
  m_transport.Send(packet);
  while (!m_sent && !m_failed) Pump(Deadline::max());
  return m_sent;
}

bool RawPipe::WritePackets(const std::string& message, std::size_t count) {
  const std::size_t total = message.empty() ? 1 : (message.size() - 1) / kPayloadRoom + 1;
  for (std::size_t k = 0; k < total && k < count; ++k) {
    const std::string_view payload =
        std::string_view(message).substr(k * kPayloadRoom, kPayloadRoom);
    const auto remaining = static_cast<std::uint32_t>(total - k - 1);
    if (!WritePacket(MakePacket(remaining, static_cast<std::uint32_t>(payload.size()), payload))) {
      return false;
    }
  }
  return true;
}

void RawPipe::WaitForEnd(std::chrono::milliseconds timeout) {
  const Deadline deadline = Clock::now() + timeout;
  while (!m_failed && Clock::now() < deadline) Pump(deadline);
}

}  // namespace pendrel_test
