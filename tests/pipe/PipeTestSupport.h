// Helpers of the pipe tests: unique pipe names, a plain transport client that sees the raw
// packets on the wire, a server channel with such a client, and child processes that run
// this test program again in child mode. Forged packets, pattern bytes and the peer-gone
// error number come from the shared test support (tests/support).
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/Deadline.h"
#include "pipe/NamedPipeChannel.h"
#include "pipe/detail/PipeTransport.h"
#include "tests/support/ForgedPacket.h"
#include "tests/support/PatternBytes.h"
#include "tests/support/Platform.h"
#include "tests/support/TestProcess.h"

namespace pendrel_test {

using namespace std::chrono_literals;

// A pipe name no other test (or parallel test process) uses: process id, counter and the
// current test's name.
std::wstring UniquePipeName();

// A client end that is only the transport: tests read and write raw packets with it.
class RawClient {
 public:
  // Connects to `name`, trying again until `timeout` while the server end is not there yet.
  bool Connect(const std::wstring& name, std::chrono::milliseconds timeout = 5s);
  // Connects once; returns the system's error number or 0.
  std::uint32_t ConnectOnce(const std::wstring& name);

  // Next packet in arrival order; false on failure or time-out.
  bool Read(std::string& packet, std::chrono::milliseconds timeout = 5s);
  // Next packet if one is there already, without waiting at all.
  bool ReadNow(std::string& packet);
  // Writes one packet; false on failure or time-out.
  bool Write(std::string_view packet, std::chrono::milliseconds timeout = 5s);
  // Writes `message` framed as the channel frames it, in packets of `packetSize` bytes;
  // false on failure or time-out.
  bool WriteMessage(std::string message, std::uint32_t packetSize = 32768);
  // Waits until the transport fails (the server end has gone); true if it did in time.
  bool WaitForFailure(std::chrono::milliseconds timeout = 5s);

  bool Failed() const { return m_failure != Pendrel::detail::ETransportFailure::None; }
  std::uint32_t FailureCode() const { return m_code; }
  std::size_t PacketsRead() const { return m_packetsRead; }
  void Disconnect() { m_transport.Disconnect(); }

 private:
  void Pump(Pendrel::base::Deadline deadline);

  Pendrel::detail::PipeTransport m_transport;
  std::deque<std::string> m_received;
  bool m_sent = false;
  std::size_t m_packetsRead = 0;
  Pendrel::detail::ETransportFailure m_failure = Pendrel::detail::ETransportFailure::None;
  std::uint32_t m_code = 0;
};

// Opens `server` on `name` while `client` connects to it; true when both succeeded.
bool OpenWithRawClient(Pendrel::NamedPipeChannel& server, RawClient& client,
                       const std::wstring& name);

// A copy of this test program started in child mode (see RunPipeChild), with `arguments`
// after the program's path.
class ChildProcess : public TestProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& arguments);
};

// A copy of this test program that echoes on the pipe `name` (child mode echo).
class EchoChild : public ChildProcess {
 public:
  explicit EchoChild(const std::wstring& name);
  // Opens `server` on the pipe for this child alone; true once the child is connected.
  bool Open(Pendrel::NamedPipeChannel& server);

 private:
  std::wstring m_name;
};

// Child mode, entered by main when the first argument is "--pipe-child":
//   echo <pipe name> [<gate file>]: waits for the gate file if one is named, opens the
//   client end of the pipe and sends every message back until the server end goes. Exit
//   code 0 then; 2 if it could not connect, 3 if nothing came for a minute.
int RunPipeChild(int argc, char** argv);

}  // namespace pendrel_test
