#include "tests/support/PacketPipe.h"

#include <algorithm>  // std::max
#include <thread>
#include <utility>  // std::move

namespace pendrel_test {

using Pendrel::base::Clock;
using Pendrel::base::Deadline;
using Pendrel::detail::kPacketHeaderSize;
using Pendrel::detail::MessageAssembler;

namespace {

// Messages from the library stay far below this; its own cap is 1 GiB.
constexpr std::uint64_t kMaxMessage = std::uint64_t{2} << 30;

}  // namespace

PacketPipe::PacketPipe(std::uint32_t packetSize) : m_packetSize(packetSize) {}

bool PacketPipe::Connect(const std::wstring& name, std::chrono::milliseconds timeout) {
  const Deadline deadline = Clock::now() + timeout;
  while (m_transport.Connect(name) != 0) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

void PacketPipe::Pump(Deadline deadline) {
  const Pendrel::detail::TransportEvents events =
      m_transport.Wait(deadline, m_packetSize, static_cast<std::size_t>(kMaxMessage));
  if (events.received) m_packets.emplace_back(m_transport.Packet());
  if (events.sent) m_sent = true;
  if (events.failure != Pendrel::detail::ETransportFailure::None) m_failed = true;
}

bool PacketPipe::ReadMessage(std::string& message) {
  for (;;) {
    while (m_packets.empty()) {
      if (m_failed) return false;
      Pump(Deadline::max());
    }
    const std::string packet = std::move(m_packets.front());
    m_packets.pop_front();
    // Whatever size the library writes is taken as it comes.
    const auto wire =
        static_cast<std::uint32_t>(std::max<std::size_t>(packet.size(), kPacketHeaderSize));
    switch (m_assembler.Add(packet, wire, kMaxMessage)) {
      case MessageAssembler::EStep::Complete:
        message = m_assembler.TakeMessage();
        return true;
      case MessageAssembler::EStep::Partial:
        break;
      case MessageAssembler::EStep::Invalid:
      case MessageAssembler::EStep::TooLarge:
        return false;
    }
  }
}

bool PacketPipe::WritePacket(std::string_view packet) {
  m_sent = false;
  m_transport.Send(packet);
  while (!m_sent && !m_failed) Pump(Deadline::max());
  return m_sent;
}

bool PacketPipe::WritePackets(std::string message, std::size_t count) {
  Pendrel::detail::PacketWriter writer;
  writer.Begin(std::move(message), m_packetSize);
  for (std::size_t k = 0; k < count && writer.Active(); ++k) {
    if (!WritePacket(writer.CurrentPacket())) return false;
    writer.PacketSent();
  }
  return true;
}

void PacketPipe::WaitForEnd(std::chrono::milliseconds timeout) {
  const Deadline deadline = Clock::now() + timeout;
  while (!m_failed && Clock::now() < deadline) Pump(deadline);
}

}  // namespace pendrel_test
