// The operating system's side of a pipe channel: one endpoint that carries whole packets
// (byte strings whose boundaries survive the trip) between this process and one peer, plus a
// wake-up signal that lets another thread interrupt a wait at once.
//
// Windows uses the named pipe \\.\pipe\<name> in message mode with overlapped I/O; Linux an
// AF_UNIX SOCK_SEQPACKET socket in a private folder (PipeTransport_posix.cpp says which). Each
// platform's file (PipeTransport_win.cpp, PipeTransport_posix.cpp) defines the class below; the
// build picks one. The framing, queues and time limits above it are portable
// (pipe/NamedPipeChannel.cpp).
//
// Thread rules: one thread (the channel's worker, or a test) drives a transport; Wake() alone
// may be called from any thread at any time, also before Listen/Connect. The exceptions are
// SendNow and direct reading (below), each with its own rules.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "base/Deadline.h"
#include "pipe/detail/PacketFraming.h"

namespace Pendrel::detail {

// Failure numbers of the channel's own making, reported after "#" like the system's error
// numbers and equal on both platforms. They are Windows error numbers so that a Windows
// reader of a log recognises them.
inline constexpr std::uint32_t kInvalidDataCode = 13;  // ERROR_INVALID_DATA: a lying header
inline constexpr std::uint32_t kTooLargeCode = 8;      // ERROR_NOT_ENOUGH_MEMORY: over the cap
inline constexpr std::uint32_t kTimedOutCode = 258;    // WAIT_TIMEOUT
inline constexpr std::uint32_t kShortWriteCode = 29;   // ERROR_WRITE_FAULT: a packet cut short

// How a failed transfer is reported to the channel's reader.
enum class ETransportFailure {
  None,
  Probe,  // the endpoint broke while waiting for data (typically the peer left)
  Read,   // reading an announced packet failed
  Write,  // a packet could not be written
};

// What one Wait() saw. Several things may have happened at once.
struct TransportEvents {
  // A packet has arrived: PacketLength() and PacketHead() describe it, and TakePacket() or
  // Packet() receives it, until the next Wait().
  bool received = false;
  bool sent = false;  // the packet handed to Send() has gone out whole
  // Wait(): the peer's end (or an error) is there to be read, but the gate kept the driving
  // thread from reading: the direct reader will see it.
  bool deferred = false;
  ETransportFailure failure = ETransportFailure::None;
  std::uint32_t code = 0;  // the system's error number (or one of the k…Code above)
};

// Who receives a packet: the driving thread, through Wait(), or the direct reader, through
// WaitToRead().
enum class EReader { Driving, Direct };

enum class EAcceptResult {
  Connected,  // a client of this user (and of the expected process, if any) is connected
  Woken,      // Wake() was called; call Accept() again to go on waiting
  TimedOut,   // the deadline passed without an acceptable client
  Failed,     // the endpoint failed; the error number is in `error`
};

// The folder in which the server endpoints of this process live: the private socket folder
// on Linux (made if needed, as Listen would), \\.\pipe on Windows. What a handler is told to
// find its pipe in (PENDREL_PIPE_DIR). Any thread.
std::wstring EndpointFolder();

class PipeTransport {
 public:
  // Makes the wake-up signal. Never fails here: a failure is returned by Listen/Connect.
  PipeTransport();
  // Disconnect()s. Data already written stays readable by the peer.
  ~PipeTransport();
  PipeTransport(const PipeTransport&) = delete;
  PipeTransport& operator=(const PipeTransport&) = delete;

  // Server end: creates the endpoint `name` (the bare name) that one client of this user
  // may open. Fails (returns the system's error number, 0 on success) when the name is
  // taken by a live endpoint or the endpoint's folder is not private to this user.
  std::uint32_t Listen(std::wstring_view name);

  // Server end, after Listen: waits for a client until `deadline`. A client of another
  // user, or one whose process id is not `expectedPid` (when non-zero), is disconnected
  // before any byte is exchanged and the wait goes on. Once a client is accepted, no other
  // can connect, and the endpoint's files (Linux) are removed.
  EAcceptResult Accept(std::uint32_t expectedPid, base::Deadline deadline, std::uint32_t& error);

  // Client end: opens the endpoint `name` of a server of this user. Does not wait for a busy
  // or missing endpoint. Returns 0 or the system's error number.
  std::uint32_t Connect(std::wstring_view name);

  // Starts writing `packet` (copied) as one packet. At most one packet is in flight; its
  // completion or failure is reported by a later Wait().
  void Send(std::string_view packet);
  // The same for a packet in pieces. The payload is not copied on Linux (the pieces go to
  // the socket as they are): it must stay unchanged until a later Wait() has reported the
  // packet sent or failed, or Disconnect().
  void Send(const PacketPieces& packet);
  bool Sending() const;

  // Writes `packet` at once if the endpoint takes it whole without waiting; returns whether
  // it did. Nothing is written otherwise (a full socket, a broken or closed endpoint, or a
  // platform that offers no such write: Windows, where the one overlapped write belongs to
  // the driving thread); a later Wait() reports a broken endpoint as usual. The exception to
  // the thread rule: may be called from another thread than the driving one, while no packet
  // of Send() is in flight, and while the caller keeps Disconnect() from running.
  bool SendNow(const PacketPieces& packet);

  // Waits until a packet has arrived, the packet in flight has gone out, a transfer
  // failed, Wake() was called or `deadline` passed, whichever comes first. Packets are
  // received whole up to `maxPacket` bytes; a larger one is a Read failure with
  // kTooLargeCode. `readSize` is the size expected of packets (a hint for buffers).
  // `mayRead`, when given, is asked before an arrived packet (or the peer's end) is looked
  // at; when it says no, nothing is read (see direct reading below). Windows never asks it:
  // there is no direct reader there.
  TransportEvents Wait(base::Deadline deadline, std::size_t readSize, std::size_t maxPacket,
                       const std::function<bool()>& mayRead = {});

  // The packet reported to `reader` by its last wait: its size, and its first bytes (its
  // header, or all of a packet shorter than one).
  std::size_t PacketLength(EReader reader = EReader::Driving) const;
  std::string_view PacketHead(EReader reader = EReader::Driving) const;
  // Receives that packet with its payload going straight to `payload`: the first
  // `payloadLength` bytes after the header land there, the header and the rest (the filler)
  // are dropped. Returns 0, or the system's error number (kInvalidDataCode when the packet
  // came shorter than that). At most once per reported packet, and not after Packet().
  std::uint32_t TakePacket(char* payload, std::size_t payloadLength,
                           EReader reader = EReader::Driving);
  // Receives the packet reported by the last Wait() whole, if TakePacket has not; the packet
  // stays valid until the next Wait(). Empty when it could not be read.
  std::string_view Packet();

  // Direct reading (Linux; SupportsDirectReading() says): a thread that waits for a message
  // receives its packets itself, which saves waking the driving thread to read them and
  // then the waiting thread to take them. The owner arranges that one thread reads at a
  // time: while a direct reader is at work, the driving thread's `mayRead` says no and
  // WatchInput(false) keeps arrivals from waking it.
  static bool SupportsDirectReading();
  // Whether the driving thread's Wait wakes for arrived packets (true until told otherwise).
  // Any thread, while the caller keeps Disconnect() from running.
  void WatchInput(bool watch);
  // The direct reader's wait: until a packet has arrived (announced to EReader::Direct), the
  // endpoint failed or the peer left (a Probe failure, after what it sent), a packet past
  // `maxPacket` came (a Read failure with kTooLargeCode), WakeReader() was called or
  // `deadline` passed. One direct reader at a time, while the caller keeps Disconnect() from
  // running.
  TransportEvents WaitToRead(base::Deadline deadline, std::size_t maxPacket);
  // Makes the direct reader's current or next wait return. Any thread; never fails.
  void WakeReader() noexcept;

  // Cancels and waits out pending I/O and closes the endpoint, so that the peer learns the
  // channel is gone; the server end's socket and lock files (Linux) are removed, if Accept has
  // not removed them already. Wake() stays usable.
  void Disconnect();

  // Makes the current or next wait of the driving thread return. Any thread; never fails.
  void Wake() noexcept;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace Pendrel::detail
