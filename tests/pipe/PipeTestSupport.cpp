#include "tests/pipe/PipeTestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <thread>
#include <utility>  // std::move

#include "json/TextConversion.h"
#include "pipe/detail/PacketFraming.h"

namespace pendrel_test {

using Pendrel::base::Clock;
using Pendrel::base::Deadline;
using Pendrel::detail::ETransportFailure;

std::wstring UniquePipeName() { return UniqueTestPipeName("pt"); }

std::uint32_t RawClient::ConnectOnce(const std::wstring& name) { return m_transport.Connect(name); }

bool RawClient::Connect(const std::wstring& name, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (m_transport.Connect(name) != 0) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

void RawClient::Pump(Deadline deadline) {
  const auto events = m_transport.Wait(deadline, 32768, std::size_t{1} << 30);
  if (events.received) {
    m_received.emplace_back(m_transport.Packet());
    ++m_packetsRead;
  }
  if (events.sent) m_sent = true;
  if (events.failure != ETransportFailure::None) {
    m_failure = events.failure;
    m_code = events.code;
  }
}

bool RawClient::Read(std::string& packet, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (m_received.empty() && !Failed() && Clock::now() < deadline) Pump(deadline);
  if (m_received.empty()) return false;
  packet = std::move(m_received.front());
  m_received.pop_front();
  return true;
}

bool RawClient::ReadNow(std::string& packet) {
  if (m_received.empty()) Pump(Clock::now());
  if (m_received.empty()) return false;
  packet = std::move(m_received.front());
  m_received.pop_front();
  return true;
}

bool RawClient::Write(std::string_view packet, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  m_sent = false;
  m_transport.Send(packet);
  while (!m_sent && !Failed() && Clock::now() < deadline) Pump(deadline);
  return m_sent;
}

bool RawClient::WriteMessage(std::string message, std::uint32_t packetSize) {
  Pendrel::detail::PacketWriter writer;
  writer.Begin(std::move(message), packetSize);
  for (; writer.Active(); writer.PacketSent()) {
    if (!Write(writer.CurrentPacket())) return false;
  }
  return true;
}

bool RawClient::WaitForFailure(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!Failed() && Clock::now() < deadline) Pump(deadline);
  return Failed();
}

bool OpenWithRawClient(Pendrel::NamedPipeChannel& server, RawClient& client,
                       const std::wstring& name) {
  auto opened = std::async(std::launch::async, [&] { return server.Open(name); });
  const bool connected = client.Connect(name);
  return opened.get() && connected;
}

// ---- Child processes ----

namespace {

std::vector<std::wstring> ChildArguments(const std::vector<std::string>& arguments) {
  std::vector<std::wstring> all{OwnExecutable().wstring()};
  for (const std::string& argument : arguments) {
    all.push_back(std::filesystem::path(argument).wstring());
  }
  return all;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments)
    : TestProcess(ChildArguments(arguments)) {}

EchoChild::EchoChild(const std::wstring& name)
    : ChildProcess({"--pipe-child", "echo", Pendrel::Utf16ToUtf8(name)}), m_name(name) {}

bool EchoChild::Open(Pendrel::NamedPipeChannel& server) {
  if (!Started()) return false;
  server.SetExpectedPeerProcessId(ProcessId());
  return server.Open(m_name);
}

// ---- Child mode ----

int RunPipeChild(int argc, char** argv) {
  if (argc < 2 || std::string_view(argv[0]) != "echo") return 64;
  const std::string narrowName = argv[1];
  const std::wstring name(narrowName.begin(), narrowName.end());
  if (argc >= 3) {
    const std::filesystem::path gate = argv[2];
    const auto gateDeadline = Clock::now() + 30s;
    while (!std::filesystem::exists(gate)) {
      if (Clock::now() >= gateDeadline) return 4;
      std::this_thread::sleep_for(10ms);
    }
  }

  Pendrel::NamedPipeChannel channel;
  // The parent may still be creating its end.
  const auto connectDeadline = Clock::now() + 10s;
  while (!channel.Open(name, Pendrel::EPipeEnd::Client)) {
    if (Clock::now() >= connectDeadline) return 2;
    std::this_thread::sleep_for(20ms);
  }
  for (;;) {
    std::string message;
    switch (channel.WaitForMessage(message, 60s)) {
      case Pendrel::EWaitResult::Message:
        channel.Post(std::move(message));
        break;
      case Pendrel::EWaitResult::Error:
        // The parent closed its end: the normal way out.
        return 0;
      case Pendrel::EWaitResult::Interrupted:  // nobody interrupts this channel
      case Pendrel::EWaitResult::TimedOut:
        return 3;
    }
  }
}

}  // namespace pendrel_test
