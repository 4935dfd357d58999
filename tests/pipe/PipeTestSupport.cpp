#include "tests/pipe/PipeTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>  // std::min, std::max
#include <atomic>
#include <cctype>  // std::isalnum
#include <filesystem>
#include <future>
#include <thread>

#ifdef _WIN32
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#else
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#endif

namespace pendrel_test {

using Pendrel::base::Clock;
using Pendrel::base::Deadline;
using Pendrel::detail::ETransportFailure;

std::wstring UniquePipeName() { return UniqueTestPipeName("pt"); }

std::uint32_t PeerGoneCode() {
#ifdef _WIN32
  return ERROR_BROKEN_PIPE;
#else
  return EPIPE;
#endif
}

std::string MakePacket(std::uint32_t remaining, std::uint32_t payloadLength,
                       std::string_view payload, std::size_t packetSize) {
  std::string packet(std::max(packetSize, payload.size() + 8), '\0');
  for (int i = 0; i < 4; ++i) {
    packet[i] = static_cast<char>((remaining >> (8 * i)) & 0xFF);
    packet[4 + i] = static_cast<char>((payloadLength >> (8 * i)) & 0xFF);
  }
  packet.replace(8, payload.size(), payload);
  packet.resize(packetSize);
  return packet;
}

std::uint32_t HeaderWord(std::string_view packet, int index) {
  std::uint32_t value = 0;
  for (int i = 3; i >= 0; --i) {
    value = (value << 8) | static_cast<unsigned char>(packet.at(4 * index + i));
  }
  return value;
}

std::string PatternMessage(std::size_t size, unsigned seed) {
  std::string message(size, '\0');
  std::uint32_t state = 0x9E3779B9u * (seed + 1);
  for (char& c : message) {
    state = state * 1664525u + 1013904223u;
    c = static_cast<char>(state >> 24);
  }
  return message;
}

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

bool RawClient::Write(std::string_view packet, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  m_sent = false;
  m_transport.Send(packet);
  while (!m_sent && !Failed() && Clock::now() < deadline) Pump(deadline);
  return m_sent;
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
      case Pendrel::EWaitResult::TimedOut:
        return 3;
    }
  }
}

}  // namespace pendrel_test
