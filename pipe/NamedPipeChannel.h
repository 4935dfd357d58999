// NamedPipeChannel carries whole text messages (byte strings, in practice JSON) between the
// library and one handler process over a named pipe. The library opens the server end and
// the handler connects as the client; the same class can open the client end.
//
// Callers post outgoing messages (Post) and take incoming ones (TakeMessage or
// WaitForMessage); one worker thread per open channel reads the pipe and writes queued
// messages. It cuts each message into packets of P = max(PacketSize(), 128) bytes, each
// starting with an 8-byte little-endian header (packets still to come after this one, payload
// bytes in this one), and puts received packets back together, each payload received straight
// into its message. The worker sleeps in the operating system until data arrives, a packet
// has gone out, or a caller posts, asks for a flush or closes. A message posted while the
// worker has nothing to write is written by the posting thread itself (Linux), under the
// channel's lock, as far as the socket takes it without waiting (the worker writes the rest),
// which saves the hand-over to the worker on the path of every request and answer that fits
// the socket's buffer. Likewise a caller of WaitForMessage that finds nothing received reads
// the pipe itself (Linux) while it waits, one caller at a time, so that an answer of one
// packet reaches the waiting thread without the worker being woken to read it; the worker
// then neither reads nor wakes for input, and takes reading back as soon as nobody waits or
// a message of several packets begins, which the worker puts together.
//
// Received messages wait in the receive queue until somebody takes them. On a server end
// (the library's, facing a handler program it does not trust) a message is asked for when it
// is the first to arrive after a Post (the answer an exchange is about to wait for), or when
// it arrives while more WaitForMessage calls wait than messages are queued; any other message
// arrived unasked. Unasked messages are kept up to MaxQueuedMessages() messages and
// MaxQueuedBytes() bytes in all, counted until they are taken; one more fails the channel
// with ReadFailed and kReceiveQueueFullCode and drops the whole receive queue. So a handler
// that floods an idle host makes it hold at most the bound, plus the one message being put
// together (at most MaxMessageSize()). A client end keeps all it receives: its peer is the
// host that started it, which may send several messages at once.
//
// The channel is in one state at a time (EChannelState). Failures are reported by a failure
// code (ChannelFailure.h) and the error text made from it (wide, Russian, worded for the
// host's logs); the worker then ends and nothing moves any more. Messages posted afterwards
// stay queued.
//
// Thread rules: Open and Close (and the destructor) are called by the owner, never at the
// same time as each other. Everything else may be called from any thread at any time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "pipe/ChannelFailure.h"
#include "protocol/HandlerProtocol.h"

namespace Pendrel {

namespace detail {
class PipeTransport;
}  // namespace detail

// Which end of the pipe a channel opens.
enum class EPipeEnd { Server, Client };

// Where a channel is. Closed → Listening (server end, Listen) → Opening (the worker waits
// for its client, or opens the client end) → Connected → Draining (Close gives queued
// messages their time) → Stopping (Close told the worker to end) → Closed. A failure in
// Listen, Opening, Connected or Draining leads to Failed, where the worker has ended and the
// failure is set; Close leads from every state to Closed.
enum class EChannelState {
  Closed,
  Listening,
  Opening,
  Connected,
  Draining,
  Stopping,
  Failed,
};

// What WaitForMessage found, checked in this order.
enum class EWaitResult {
  Interrupted,  // InterruptWaits was called (since the last Close)
  Message,      // a message was taken off the receive queue
  Error,        // the failure is set (it is left for the caller to read and clear)
  TimedOut,     // none of these came before the time-out
};

class NamedPipeChannel {
 public:
  static constexpr std::uint32_t kDefaultTimeLimitMs = 60000;
  static constexpr std::uint32_t kDefaultPacketSize = protocol::kPacketSize;
  static constexpr std::uint32_t kDefaultOpenTimeLimitMs = protocol::kConnectTimeLimitMs;
  static constexpr std::uint64_t kDefaultMaxMessageSize = std::uint64_t{1} << 30;
  static constexpr std::uint32_t kMinPacketSize = protocol::kMinPacketSize;
  static constexpr std::uint32_t kHeaderSize = protocol::kPacketHeaderSize;
  static constexpr std::uint32_t kDefaultMaxPacketSize = std::uint32_t{1} << 20;
  static constexpr std::size_t kDefaultMaxQueuedMessages = 4;
  static constexpr std::uint64_t kDefaultMaxQueuedBytes = std::uint64_t{64} << 20;

  NamedPipeChannel();
  // Closes the channel (see Close).
  ~NamedPipeChannel();
  NamedPipeChannel(const NamedPipeChannel&) = delete;
  NamedPipeChannel& operator=(const NamedPipeChannel&) = delete;

  // Opens the end `end` of the pipe `name` (the bare name: \\.\pipe\<name> on Windows, a
  // socket in a private folder on Linux) and starts the worker. A channel that is open is
  // closed first. The failure is cleared. Returns true once the worker is connected;
  // false when the worker could not create or open the pipe, when no client came within the
  // worker's own time limit, or when OpenTimeLimitMs() (10000 ms) passed first. In the
  // last case the error text is "Вышло время ожидания создания нового подключения по
  // именнованным каналам" and the worker goes on waiting for a client until TimeLimitMs().
  bool Open(const std::wstring& name, EPipeEnd end = EPipeEnd::Server);

  // The two halves of opening the server end, for owners that start the client process in
  // between. Listen creates the endpoint `name` at once, so a client started afterwards
  // finds it; it returns false, with the "Ошибка открытия канала NamedPipe" text, when the
  // name is taken or cannot be made. WaitForConnection starts the worker, which accepts a
  // client only now, when ExpectedPeerProcessId() is known, and waits like Open: true once
  // connected, false on failure or after OpenTimeLimitMs().
  bool Listen(const std::wstring& name);
  bool WaitForConnection();

  // Tells a server end still waiting for its client that the expected client process has
  // ended: the wait stops at once with "Нет входящих подключений по каналу NamedPipe". A
  // connected channel learns of a peer's end from the pipe itself. Any thread.
  void NotifyPeerExited();

  // While the worker is connected and has not failed (Draining), gives queued outgoing
  // messages up to TimeLimitMs() to go out whole; then stops and joins the worker
  // (Stopping), closes the pipe and drops the messages left in both queues (Closed). The
  // failure stays; InterruptWaits is undone. Safe to call in every state.
  void Close();

  // Sends `message` after everything posted before. Always returns true. A message posted
  // while the channel is connected and the worker has nothing to write is written by the
  // calling thread at once (Linux), packet by packet, as far as the pipe takes them without
  // waiting; the worker is woken to write the rest, if any. Any other is appended to the
  // send queue and the worker is woken to write it. A queued message waits until the worker
  // is connected (forever if it has ended).
  bool Post(std::string message);

  // Receive side.
  bool HasMessage() const;
  std::size_t ReceivedCount() const;
  // Takes the oldest received message; false (and `message` untouched) if there is none.
  bool TakeMessage(std::string& message);
  // Blocks until the receive queue is empty (someone took what was there) or `timeout`
  // passes; returns whether it is empty.
  bool WaitUntilNothingReceived(std::chrono::milliseconds timeout);
  // Blocks until InterruptWaits has been called, a message can be taken (it is, into
  // `message`), the failure is set, or `timeout` passes, and says which came first in that
  // order of checks. A `timeout` of milliseconds::max() waits without limit.
  EWaitResult WaitForMessage(std::string& message, std::chrono::milliseconds timeout);
  // Post(message), then WaitForMessage(answer, timeout): the exchange of a question and its
  // answer. A caller that will read the answer itself (see the top of this file) takes the
  // reading before the question goes out, so that an answer that comes at once is read by the
  // waiting thread too.
  EWaitResult Ask(std::string message, std::string& answer, std::chrono::milliseconds timeout);
  // Blocks until the failure is set or InterruptWaits has been called, without taking any
  // message; returns whether the failure is set.
  bool WaitForFailure();
  // Makes every current and later WaitForMessage return Interrupted, and WaitForFailure
  // return, at once, until Close.
  // For an owner that stops reading from another thread. Any thread.
  void InterruptWaits();

  // The failure: None while all is well; set by the worker, by Listen, or by Open on its
  // time-out. The error text is the failure's text ("" for None).
  bool HasError() const;
  CChannelFailure Failure() const;
  std::wstring ErrorText() const;
  // Returns the error text and clears the failure.
  std::wstring TakeErrorText();
  // Returns the failure with its text, and clears it.
  CChannelFailure TakeFailure(std::wstring& text);
  // The text a failure is reported with.
  static std::wstring TextOf(const CChannelFailure& failure);

  EChannelState State() const;
  bool IsConnected() const;   // Connected or Draining
  bool IsConnecting() const;  // Opening
  bool IsFlushRequested() const;
  bool IsFlushed() const;

  // Clears the flushed flag and asks the worker to report, by setting it, once every
  // message posted before this call has been written to the pipe whole.
  void RequestFlush();
  // Blocks until the flushed flag is set or `timeout` passes (returns early, false, when no
  // worker runs that could set it). Returns the flushed flag.
  bool WaitForFlush(std::chrono::milliseconds timeout);

  // Fields. Each may be set at any time and applies from its next use.
  // The channel's time limit: for the worker's wait for a client, for each packet to be
  // written, for the gap between two packets of one message, and for Close's drain.
  std::uint32_t TimeLimitMs() const;
  void SetTimeLimitMs(std::uint32_t milliseconds);
  // Packet size; the server end raises it to the size of a larger packet a client sends,
  // up to MaxPacketSize().
  std::uint32_t PacketSize() const;
  void SetPacketSize(std::uint32_t bytes);
  // Server end: the largest packet taken from a client (1 MiB by default; never less than the
  // packet size). A larger packet is a read failure with kPacketTooLargeCode, and its size is
  // not adopted.
  std::uint32_t MaxPacketSize() const;
  void SetMaxPacketSize(std::uint32_t bytes);
  // Server end: the bound on messages that arrived unasked (see the top of this file): how
  // many (4 by default) and how many bytes in all (64 MiB by default) the receive queue keeps
  // of them.
  std::size_t MaxQueuedMessages() const;
  void SetMaxQueuedMessages(std::size_t count);
  std::uint64_t MaxQueuedBytes() const;
  void SetMaxQueuedBytes(std::uint64_t bytes);
  // How long Open and WaitForConnection wait for the connection.
  std::uint32_t OpenTimeLimitMs() const;
  void SetOpenTimeLimitMs(std::uint32_t milliseconds);
  // Largest message accepted; a larger one (announced or received) is a read failure.
  std::uint64_t MaxMessageSize() const;
  void SetMaxMessageSize(std::uint64_t bytes);
  // Server end: when non-zero, only a client in the process with this id is accepted;
  // others are disconnected before any byte is exchanged. 0 (default): any process of the
  // current user.
  std::uint32_t ExpectedPeerProcessId() const;
  void SetExpectedPeerProcessId(std::uint32_t processId);

 private:
  bool StartWorker(const std::wstring& name, EPipeEnd end);

  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace Pendrel
