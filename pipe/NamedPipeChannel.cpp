#include "pipe/NamedPipeChannel.h"

#include <algorithm>  // std::min, std::max
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <iterator>  // std::size
#include <limits>
#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "base/Deadline.h"
#include "json/TextConversion.h"
#include "pipe/detail/PacketFraming.h"
#include "pipe/detail/PipeTransport.h"

namespace Pendrel {
namespace {

using base::Clock;
using base::Deadline;
using detail::ETransportFailure;
using detail::MessageAssembler;
using detail::PacketWriter;
using std::chrono::milliseconds;

// The text of each failure: a message and the format applied to it and the failure's code.
// Hosts and handlers' operators read these in logs and match them, so they are worded
// exactly so (the misspelt "именнованным" included). "%ls" takes the wide message the same
// way on every platform.
struct FailureText {
  EChannelFailure failure;
  const wchar_t* message;
  const wchar_t* format;
};

constexpr wchar_t kReadFailedMessage[] = L"Ошибка чтения данных через NamedPipe";

constexpr FailureText kFailureTexts[] = {
    {EChannelFailure::None, L"", L"%ls"},
    {EChannelFailure::OpenTimedOut,
     L"Вышло время ожидания создания нового подключения по именнованным каналам", L"%ls"},
    {EChannelFailure::OpenFailed, L"Ошибка открытия канала NamedPipe", L"%ls\n"},
    {EChannelFailure::NoClient, L"Нет входящих подключений по каналу NamedPipe", L"%ls\n"},
    {EChannelFailure::Unhandled, L"Необработанное исключение при создании канала NamedPipe",
     L"%ls\n"},
    {EChannelFailure::PeerGone, kReadFailedMessage, L"%ls (1) #%u\n"},
    {EChannelFailure::ReadFailed, kReadFailedMessage, L"%ls (2) #%u\n"},
    // The first number stands for a count that the reader never kept: always 0.
    {EChannelFailure::PacketTimedOut,
     L"Ошибка чтения данных через NamedPipe - вышло время ожидания пакета", L"%ls: 0 / %u\n"},
    {EChannelFailure::WriteFailed, L"Ошибка записи данных в NamedPipe", L"%ls #%u\n"},
    {EChannelFailure::LaunchFailed, L"Ошибка запуска обработчика", L"%ls #%u\n"},
};

constexpr bool TextsAreInEnumOrder() {
  for (std::size_t i = 0; i < std::size(kFailureTexts); ++i) {
    if (static_cast<std::size_t>(kFailureTexts[i].failure) != i) return false;
  }
  return true;
}
static_assert(TextsAreInEnumOrder(), "kFailureTexts is indexed by EChannelFailure");

EChannelFailure FailureOfTransfer(ETransportFailure failure) {
  switch (failure) {
    case ETransportFailure::Probe:
      return EChannelFailure::PeerGone;
    case ETransportFailure::Write:
      return EChannelFailure::WriteFailed;
    case ETransportFailure::Read:
    case ETransportFailure::None:
      break;
  }
  return EChannelFailure::ReadFailed;
}

static_assert(NamedPipeChannel::kHeaderSize == detail::kPacketHeaderSize);

// When a wait of `timeout` ends; milliseconds::max() waits without limit.
Deadline WaitDeadline(milliseconds timeout) {
  return timeout == milliseconds::max() ? base::kNever : Clock::now() + timeout;
}

// P: packets are never smaller than 128 bytes, whatever the field says.
std::uint32_t WirePacketSize(std::uint32_t packetSize) {
  return std::max(packetSize, NamedPipeChannel::kMinPacketSize);
}

// The largest packet worth receiving: one that could carry the largest message, but never
// less than a packet of the current size.
std::size_t LargestCarryingPacket(std::uint32_t wirePacketSize, std::uint64_t maxMessageSize) {
  constexpr std::uint64_t kLimit = std::numeric_limits<std::uint32_t>::max();
  const std::uint64_t carrying = std::min(maxMessageSize, kLimit) + NamedPipeChannel::kHeaderSize;
  return static_cast<std::size_t>(
      std::min(kLimit, std::max<std::uint64_t>(wirePacketSize, carrying)));
}

}  // namespace

struct NamedPipeChannel::Impl {
  // Fields; each applies from its next use.
  std::atomic<std::uint32_t> timeLimitMs{kDefaultTimeLimitMs};
  std::atomic<std::uint32_t> packetSize{kDefaultPacketSize};  // raised by the worker
  std::atomic<std::uint32_t> openTimeLimitMs{kDefaultOpenTimeLimitMs};
  std::atomic<std::uint64_t> maxMessageSize{kDefaultMaxMessageSize};
  std::atomic<std::uint32_t> expectedPid{0};
  std::atomic<std::uint32_t> maxPacketSize{kDefaultMaxPacketSize};
  std::atomic<std::size_t> maxQueuedMessages{kDefaultMaxQueuedMessages};
  std::atomic<std::uint64_t> maxQueuedBytes{kDefaultMaxQueuedBytes};

  enum class EFlush { None, Requested, Done };

  // A received message, and whether it arrived unasked (see NamedPipeChannel.h).
  struct Received {
    std::string text;
    bool unasked = false;
  };

  mutable std::mutex mutex;
  // Notified, under `mutex`, when the state, the failure, the flush or the send side changes
  // or a message is taken: what Open, Close, WaitForFlush and WaitUntilNothingReceived wait
  // for.
  std::condition_variable changed;
  // Notified, under `mutex`, when a message is queued for taking, the failure is set or
  // waits are interrupted: what WaitForMessage waits for, without waking whenever a message
  // goes out or the state changes.
  std::condition_variable arrived;
  // Notified, under `mutex`, when the failure is set or waits are interrupted: what
  // WaitForFailure waits for, without waking at every message.
  std::condition_variable endedOrInterrupted;
  EChannelState state = EChannelState::Closed;  // guarded by mutex
  CChannelFailure failure;                      // guarded by mutex
  EFlush flush = EFlush::None;                  // guarded by mutex
  std::deque<std::string> sendQueue;            // guarded by mutex
  // Guarded by mutex: a message whose first packets the posting thread wrote when the socket
  // would take no more (WriteNowLocked); the worker writes the rest before anything queued.
  std::optional<PacketWriter> begun;
  std::deque<Received> receiveQueue;  // guarded by mutex
  // Guarded by mutex: the unasked messages in receiveQueue, and their bytes.
  std::size_t unaskedCount = 0;
  std::uint64_t unaskedBytes = 0;
  bool answerDue = false;  // guarded by mutex: a message was posted since the last arrived
  // Reading (see ReadDirectly): guarded by mutex. A caller of WaitForMessage reads the pipe
  // itself (`directReader`) when the worker is not reading a packet (`workerReading`); the
  // worker reads only while no caller does. `readersBarred` keeps callers out once the
  // worker is about to disconnect.
  bool directReader = false;
  bool workerReading = false;
  bool readersBarred = false;
  std::size_t waiting = 0;   // guarded by mutex: WaitForMessage calls in progress
  bool writing = false;      // guarded by mutex: a message off the send queue is being written
  bool peerExited = false;   // guarded by mutex: the expected client's process has ended
  bool interrupted = false;  // guarded by mutex: InterruptWaits was called
  // Guarded by mutex: the worker reached Connected (it may have failed since); what
  // WaitForConnection reports.
  bool reachedConnected = false;

  // The endpoint, made by Listen or StartWorker while no worker runs and reset by Close after
  // the worker has been joined. While a worker runs, the pointer itself does not change: the
  // worker uses the transport without the lock, other threads only call Wake() under it.
  std::unique_ptr<detail::PipeTransport> transport;
  // The message being put together, with the time its last packet came: used only by the
  // one thread that reads (the worker while `workerReading`, a caller while `directReader`,
  // anybody under `mutex` while neither), so that a message whose first packet a caller read
  // is finished by the worker.
  struct Inbound {
    MessageAssembler assembler;
    Clock::time_point lastPacket{};
  };
  Inbound inbound;
  // Set by StartWorker before the worker starts and left alone until it has been joined.
  std::wstring name;
  EPipeEnd end = EPipeEnd::Server;
  std::thread worker;

  // Worker.
  struct Transfer;
  struct PacketBounds;
  void RunWorker() noexcept;
  bool WaitForClient();
  bool AcceptClient(detail::PipeTransport& pipe);
  void Exchange();
  void SendNext(detail::PipeTransport& pipe, Transfer& transfer, milliseconds limit);
  PacketBounds Bounds() const;
  CChannelFailure Receive(detail::PipeTransport& pipe, detail::EReader reader,
                          std::string& completed, bool& complete);
  CChannelFailure ReadFailureOf(const detail::TransportEvents& events,
                                const PacketBounds& bounds) const;
  void WaitForDirectReader();
  bool WriteNowLocked(std::string& message);
  // Callers.
  bool CanReadDirectlyLocked() const;
  void ClaimReadingLocked();
  bool ReadDirectly(std::unique_lock<std::mutex>& lock, std::string& message, Deadline deadline);
  void PostLocked(std::string message);
  EWaitResult WaitLocked(std::unique_lock<std::mutex>& lock, std::string& message,
                         Deadline deadline, bool claimed);
  void TakeNextMessage(PacketWriter& writer);
  void ReportFlush();
  CChannelFailure DeliverLocked(std::string message);
  void MessageWritten();

  // Moves the oldest received message into `message`. Called under `mutex`, the queue not
  // empty.
  void TakeFrontLocked(std::string& message) {
    Received& front = receiveQueue.front();
    if (front.unasked) {
      --unaskedCount;
      unaskedBytes -= front.text.size();
    }
    message = std::move(front.text);
    receiveQueue.pop_front();
    changed.notify_all();
  }
  // Drops every received message. Called under `mutex`.
  void DropReceivedLocked() {
    std::deque<Received>().swap(receiveQueue);
    unaskedCount = 0;
    unaskedBytes = 0;
  }

  // Sets the failure and moves to Failed (unless Close has already told the worker to end);
  // whoever sees the failure sees the channel disconnected. Returns false for the callers'
  // convenience.
  bool Fail(EChannelFailure kind, std::uint32_t code = 0) {
    const std::lock_guard<std::mutex> lock(mutex);
    FailLocked({kind, code});
    return false;
  }
  // A transfer's failure, from the worker or a caller that reads: the first one stands.
  void FailTransferLocked(CChannelFailure what) {
    if (state != EChannelState::Failed) FailLocked(what);
  }
  void FailLocked(CChannelFailure what) {
    failure = what;
    NotifyEndedLocked();
    if (state != EChannelState::Stopping) state = EChannelState::Failed;
    changed.notify_all();
  }
  // Wakes WaitForMessage (also one reading the pipe) and WaitForFailure: the failure was
  // set or waits interrupted. Called under `mutex`.
  void NotifyEndedLocked() {
    arrived.notify_all();
    endedOrInterrupted.notify_all();
    if (directReader && transport) transport->WakeReader();
  }
  void SetStateLocked(EChannelState next) {
    state = next;
    changed.notify_all();
  }
  bool WorkerRunningLocked() const {
    return state == EChannelState::Opening || state == EChannelState::Connected ||
           state == EChannelState::Draining || state == EChannelState::Stopping;
  }
  // Makes the worker's current or next wait return. Called under `mutex`.
  void WakeWorkerLocked() {
    if (transport) transport->Wake();
  }
};

void NamedPipeChannel::Impl::RunWorker() noexcept {
  // Nothing may leave the thread: every failure becomes the channel's failure.
  try {
    if (WaitForClient()) Exchange();
  } catch (...) {
    Fail(EChannelFailure::Unhandled);
  }
  {
    // No caller may be reading the pipe when it closes.
    std::unique_lock<std::mutex> lock(mutex);
    readersBarred = true;
    if (directReader) transport->WakeReader();
    changed.wait(lock, [this] { return !directReader; });
  }
  // The peer learns at once that nobody reads or writes any more.
  transport->Disconnect();
  const std::lock_guard<std::mutex> lock(mutex);
  writing = false;
  // A worker that ended without a failure was told to (Stopping); one that failed is Failed.
  if (state != EChannelState::Failed) state = EChannelState::Stopping;
  changed.notify_all();
}

bool NamedPipeChannel::Impl::WaitForClient() {
  detail::PipeTransport& pipe = *transport;
  if (end == EPipeEnd::Server) {
    if (!AcceptClient(pipe)) return false;
  } else if (const std::uint32_t error = pipe.Connect(name); error != 0) {
    return Fail(EChannelFailure::OpenFailed, error);
  }
  const std::lock_guard<std::mutex> lock(mutex);
  if (state != EChannelState::Opening) return false;  // Close came first
  reachedConnected = true;
  SetStateLocked(EChannelState::Connected);
  return true;
}

bool NamedPipeChannel::Impl::AcceptClient(detail::PipeTransport& pipe) {
  const Deadline deadline = Clock::now() + milliseconds(timeLimitMs.load());
  for (;;) {
    bool ended = false;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      // Close ends the wait; that is reported like a time-out.
      if (state != EChannelState::Opening) {
        FailLocked({EChannelFailure::NoClient, 0});
        return false;
      }
      ended = peerExited;
    }
    // Once the client's process is known to have ended, one last look without waiting: a
    // client that connected just before it ended is still taken.
    std::uint32_t error = 0;
    switch (pipe.Accept(expectedPid.load(), ended ? Clock::now() : deadline, error)) {
      case detail::EAcceptResult::Connected:
        return true;
      case detail::EAcceptResult::Woken:
        break;
      case detail::EAcceptResult::TimedOut:
      case detail::EAcceptResult::Failed:
        // The endpoint (and on Linux its files) goes before anybody learns of the failure.
        pipe.Disconnect();
        return Fail(EChannelFailure::NoClient);
    }
  }
}

// Takes the next queued message, if any, into `writer`.
void NamedPipeChannel::Impl::TakeNextMessage(PacketWriter& writer) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (begun) {
    writer = std::move(*begun);
    begun.reset();
    return;  // `writing` has been set by WriteNowLocked
  }
  if (sendQueue.empty()) return;
  writer.Begin(std::move(sendQueue.front()), WirePacketSize(packetSize));
  sendQueue.pop_front();
  writing = true;
}

// Flushed means: everything posted before the request has been written whole.
void NamedPipeChannel::Impl::ReportFlush() {
  const std::lock_guard<std::mutex> lock(mutex);
  if (flush != EFlush::Requested) return;
  flush = EFlush::Done;
  changed.notify_all();
}

// Queues a message that arrived whole; on a server end, a flood of unasked ones past the
// bound fails the channel and frees what was queued. Called under `mutex`.
CChannelFailure NamedPipeChannel::Impl::DeliverLocked(std::string message) {
  const bool claimed =
      std::exchange(answerDue, false) || end == EPipeEnd::Client || waiting > receiveQueue.size();
  if (!claimed) {
    ++unaskedCount;
    unaskedBytes += message.size();
  }
  receiveQueue.push_back({std::move(message), !claimed});
  arrived.notify_all();
  if (unaskedCount > maxQueuedMessages.load() || unaskedBytes > maxQueuedBytes.load()) {
    DropReceivedLocked();
    return {EChannelFailure::ReadFailed, kReceiveQueueFullCode};
  }
  return {};
}

void NamedPipeChannel::Impl::MessageWritten() {
  const std::lock_guard<std::mutex> lock(mutex);
  writing = false;
  changed.notify_all();
}

// What the worker has in hand between two waits: the message being written, with the time
// limit of its packet in flight.
struct NamedPipeChannel::Impl::Transfer {
  PacketWriter writer;
  Deadline packetDeadline = Deadline::max();  // for the packet being written
};

// The packets a reader takes: P, the largest packet taken, and the largest that could carry
// the largest message. A server end takes packets only up to its cap, so that a client
// cannot make it adopt a size that every later message of the host would be padded to.
struct NamedPipeChannel::Impl::PacketBounds {
  std::uint32_t wire = 0;
  std::size_t largest = 0;
  std::size_t carrying = 0;
};

NamedPipeChannel::Impl::PacketBounds NamedPipeChannel::Impl::Bounds() const {
  PacketBounds bounds;
  bounds.wire = WirePacketSize(packetSize);
  bounds.carrying = LargestCarryingPacket(bounds.wire, maxMessageSize);
  bounds.largest =
      end == EPipeEnd::Server
          ? std::min<std::size_t>(bounds.carrying, std::max(bounds.wire, maxPacketSize.load()))
          : bounds.carrying;
  return bounds;
}

// The failure a reader's wait reported, if any: a packet past the server end's cap (but one
// that could carry a message) is refused with kPacketTooLargeCode.
CChannelFailure NamedPipeChannel::Impl::ReadFailureOf(const detail::TransportEvents& events,
                                                      const PacketBounds& bounds) const {
  if (events.failure == ETransportFailure::None) return {};
  if (events.failure == ETransportFailure::Read && events.code == detail::kTooLargeCode &&
      bounds.largest < bounds.carrying) {
    return {EChannelFailure::ReadFailed, kPacketTooLargeCode};
  }
  return {FailureOfTransfer(events.failure), events.code};
}

// Starts writing the next packet when the pipe is free, taking the next queued message when
// the last one has gone; reports a flush once nothing is left to write.
void NamedPipeChannel::Impl::SendNext(detail::PipeTransport& pipe, Transfer& transfer,
                                      milliseconds limit) {
  if (!transfer.writer.Active()) TakeNextMessage(transfer.writer);
  if (transfer.writer.Active() && !pipe.Sending()) {
    pipe.Send(transfer.writer.CurrentPieces());
    transfer.packetDeadline = Clock::now() + limit;
  }
  if (!transfer.writer.Active()) ReportFlush();
}

// Adds the packet announced to `reader` to the message being read, its payload received
// straight into the message; `complete` says whether it completed the message, then in
// `completed`. Called by the thread that reads.
CChannelFailure NamedPipeChannel::Impl::Receive(detail::PipeTransport& pipe, detail::EReader reader,
                                                std::string& completed, bool& complete) {
  complete = false;
  const std::size_t length = pipe.PacketLength(reader);
  // A handler may use larger packets than ours; the server end adopts their size (the
  // transport has refused packets past MaxPacketSize()).
  if (end == EPipeEnd::Server && length > packetSize) {
    packetSize = static_cast<std::uint32_t>(length);
  }
  inbound.lastPacket = Clock::now();
  const std::string_view head = pipe.PacketHead(reader);
  char* payload = nullptr;
  const MessageAssembler::EStep step =
      inbound.assembler.Accept(head, length, WirePacketSize(packetSize), maxMessageSize, payload);
  switch (step) {
    case MessageAssembler::EStep::Complete:
    case MessageAssembler::EStep::Partial:
      break;
    case MessageAssembler::EStep::Invalid:
      return {EChannelFailure::ReadFailed, detail::kInvalidDataCode};
    case MessageAssembler::EStep::TooLarge:
      return {EChannelFailure::ReadFailed, detail::kTooLargeCode};
  }
  const std::uint32_t payloadLength = protocol::ReadPacketHeader(head.data()).payload;
  if (const std::uint32_t error = pipe.TakePacket(payload, payloadLength, reader)) {
    return {EChannelFailure::ReadFailed, error};
  }
  if (step == MessageAssembler::EStep::Complete) {
    completed = inbound.assembler.TakeMessage();
    complete = true;
  }
  return {};
}

// A message that fits one packet, posted while the worker has nothing to write, goes out from
// the posting thread at once: no hand-over to the worker and no wake-up. Called under
// `mutex`, which keeps the worker from starting a write of its own or disconnecting meanwhile
// (it disconnects only after leaving Connected and Draining under the lock). Returns false,
// having written nothing, when the worker must write it.
bool NamedPipeChannel::Impl::WriteNowLocked(std::string& message) {
  if (state != EChannelState::Connected && state != EChannelState::Draining) return false;
  if (!sendQueue.empty() || writing || !transport) return false;
  PacketWriter writer;
  writer.Begin(std::move(message), WirePacketSize(packetSize));
  while (transport->SendNow(writer.CurrentPieces())) {
    if (writer.PacketSent()) return true;
  }
  // The socket takes no more now (or this platform writes only from the worker).
  begun.emplace(std::move(writer));
  writing = true;
  WakeWorkerLocked();
  return true;
}

// The worker saw the peer's end while a caller reads the pipe: the caller takes what is left
// and reports the end; the worker goes on once it has (or Close came).
void NamedPipeChannel::Impl::WaitForDirectReader() {
  std::unique_lock<std::mutex> lock(mutex);
  changed.wait(lock, [this] {
    return !directReader || state == EChannelState::Stopping || state == EChannelState::Failed;
  });
}

// Reads and writes at the same time, so that two ends that both send large messages cannot
// block each other; one message is written at a time, packet after packet. Reads only while
// no caller reads (see ReadDirectly). Returns when Close tells it to or a transfer fails (the
// failure set, by the worker or by a caller that read).
void NamedPipeChannel::Impl::Exchange() {
  detail::PipeTransport& pipe = *transport;
  Transfer transfer;
  // Asked by the transport before it reads: the worker takes a packet only while no caller
  // reads, and holds off callers until it has handled the packet.
  const std::function<bool()> mayRead = [this] {
    const std::lock_guard<std::mutex> lock(mutex);
    workerReading = !directReader && state != EChannelState::Failed;
    return workerReading;
  };
  for (;;) {
    const milliseconds limit(timeLimitMs.load());
    // A gap of more than `limit` between two packets of one message fails, so the wait runs
    // just past it.
    Deadline deadline = Deadline::max();
    {
      const std::lock_guard<std::mutex> lock(mutex);
      if (state == EChannelState::Stopping || state == EChannelState::Failed) return;
      if (!directReader && inbound.assembler.InMessage()) {
        deadline = inbound.lastPacket + limit + milliseconds(1);
      }
    }
    SendNext(pipe, transfer, limit);
    if (pipe.Sending()) deadline = std::min(deadline, transfer.packetDeadline);
    const PacketBounds bounds = Bounds();
    const detail::TransportEvents events =
        pipe.Wait(deadline, bounds.wire, bounds.largest, mayRead);
    if (events.deferred) {
      WaitForDirectReader();
      continue;
    }

    // A packet that arrived is handled before a failure seen in the same wait, so that a
    // message sent just before the peer left is still delivered.
    CChannelFailure failure;
    std::string completed;
    bool complete = false;
    if (events.received) failure = Receive(pipe, detail::EReader::Driving, completed, complete);
    if (failure.Failure == EChannelFailure::None) failure = ReadFailureOf(events, bounds);
    {
      // The message is queued before callers may read again, so that it stays ahead of the
      // next one.
      const std::lock_guard<std::mutex> lock(mutex);
      if (failure.Failure == EChannelFailure::None && !directReader &&
          inbound.assembler.InMessage() && Clock::now() - inbound.lastPacket > limit) {
        failure = {EChannelFailure::PacketTimedOut, inbound.assembler.Remaining()};
      }
      if (complete && failure.Failure == EChannelFailure::None) {
        failure = DeliverLocked(std::move(completed));
      }
      workerReading = false;
    }
    if (failure.Failure == EChannelFailure::None) {
      if (events.sent && transfer.writer.PacketSent()) MessageWritten();
      if (pipe.Sending() && Clock::now() >= transfer.packetDeadline) {
        failure = {EChannelFailure::WriteFailed, detail::kTimedOutCode};
      }
    }
    if (failure.Failure != EChannelFailure::None) {
      const std::lock_guard<std::mutex> lock(mutex);
      FailTransferLocked(failure);
      return;
    }
  }
}

// Whether a caller of WaitForMessage may read the pipe itself: the worker is connected, not
// reading a packet and not in the middle of a message, and no other caller reads. Called
// under `mutex`.
bool NamedPipeChannel::Impl::CanReadDirectlyLocked() const {
  return transport && detail::PipeTransport::SupportsDirectReading() &&
         (state == EChannelState::Connected || state == EChannelState::Draining) &&
         !readersBarred && !directReader && !workerReading && !inbound.assembler.InMessage();
}

// Makes the calling thread the one that reads, and stops the worker waking for input. Called
// under `mutex`, with CanReadDirectlyLocked() true.
void NamedPipeChannel::Impl::ClaimReadingLocked() {
  directReader = true;
  transport->WatchInput(false);
}

// Sends `message` after everything posted before: when nothing is queued or being written,
// the calling thread writes the packets that the socket takes at once and leaves the rest to
// the worker (WriteNowLocked), else the worker writes it all. Called under `mutex`.
void NamedPipeChannel::Impl::PostLocked(std::string message) {
  answerDue = true;
  if (WriteNowLocked(message)) return;
  sendQueue.push_back(std::move(message));
  WakeWorkerLocked();
}

// WaitForMessage's wait, counted in `waiting`; `claimed` when the caller already reads (Ask).
// Called and returns under `mutex` (held by `lock`).
EWaitResult NamedPipeChannel::Impl::WaitLocked(std::unique_lock<std::mutex>& lock,
                                               std::string& message, Deadline deadline,
                                               bool claimed) {
  // Counted while it waits, so that what arrives meanwhile is claimed, not unasked.
  ++waiting;
  struct Leave {
    std::size_t& waiting;
    ~Leave() { --waiting; }
  } leave{waiting};
  if (claimed && ReadDirectly(lock, message, deadline)) return EWaitResult::Message;
  for (;;) {
    if (interrupted) return EWaitResult::Interrupted;
    if (!receiveQueue.empty()) {
      TakeFrontLocked(message);
      return EWaitResult::Message;
    }
    if (failure.Failure != EChannelFailure::None) return EWaitResult::Error;
    if (base::Passed(deadline)) return EWaitResult::TimedOut;
    if (CanReadDirectlyLocked()) {
      ClaimReadingLocked();
      if (ReadDirectly(lock, message, deadline)) return EWaitResult::Message;
      continue;
    }
    if (deadline == base::kNever) {
      arrived.wait(lock);
    } else {
      arrived.wait_until(lock, deadline);
    }
  }
}

// A caller waiting for a message reads the pipe itself rather than sleeping until the worker
// has read the message and handed it over: one thread fewer woken on the way of every
// message. Meanwhile the worker neither reads nor wakes for input; it still writes. Reads
// until a message of one packet is complete (true, the message in `message`), a message of
// several packets has begun, the failure is set (also by this reader), waits are interrupted,
// the worker is about to disconnect, or `deadline` passes; then input is the worker's again,
// so that what arrives unasked later is still bounded. The worker puts together a message of
// several packets: its buffer grows on the worker's thread, as for every large message,
// while the caller waits for it as when it does not read.
// Called and returns under `mutex` (held by `lock`), after ClaimReadingLocked().
bool NamedPipeChannel::Impl::ReadDirectly(std::unique_lock<std::mutex>& lock, std::string& message,
                                          Deadline deadline) {
  detail::PipeTransport& pipe = *transport;
  bool got = false;
  for (;;) {
    const PacketBounds bounds = Bounds();
    lock.unlock();
    const detail::TransportEvents events = pipe.WaitToRead(deadline, bounds.largest);
    CChannelFailure problem;
    std::string completed;
    bool complete = false;
    if (events.received) problem = Receive(pipe, detail::EReader::Direct, completed, complete);
    if (problem.Failure == EChannelFailure::None) problem = ReadFailureOf(events, bounds);
    lock.lock();
    if (problem.Failure != EChannelFailure::None) {
      // The worker ends on the failure like on its own.
      FailTransferLocked(problem);
      WakeWorkerLocked();
      break;
    }
    if (complete) {
      // The answer an exchange waited for, or a message a waiting caller claims.
      answerDue = false;
      message = std::move(completed);
      got = true;
      break;
    }
    if (inbound.assembler.InMessage()) {
      // The worker watches the gap before the next packet from now on.
      WakeWorkerLocked();
      break;
    }
    if (interrupted || readersBarred || failure.Failure != EChannelFailure::None ||
        (state != EChannelState::Connected && state != EChannelState::Draining) ||
        Clock::now() >= deadline) {
      break;
    }
  }
  pipe.WatchInput(true);
  directReader = false;
  changed.notify_all();
  return got;
}

NamedPipeChannel::NamedPipeChannel() : m_impl(std::make_unique<Impl>()) {}

NamedPipeChannel::~NamedPipeChannel() { Close(); }

bool NamedPipeChannel::Open(const std::wstring& name, EPipeEnd end) {
  if (end == EPipeEnd::Server) return Listen(name) && WaitForConnection();
  return StartWorker(name, end) && WaitForConnection();
}

bool NamedPipeChannel::Listen(const std::wstring& name) {
  Impl& impl = *m_impl;
  // A channel that is open is closed first; messages posted before any Open stay queued.
  if (impl.worker.joinable()) Close();
  auto transport = std::make_unique<detail::PipeTransport>();
  // The endpoint exists before this returns, so a client started afterwards finds it; it is
  // accepted only once WaitForConnection runs, by then with the expected process id known.
  const std::uint32_t error = transport->Listen(name);
  const std::lock_guard<std::mutex> lock(impl.mutex);
  impl.failure = {};
  impl.peerExited = false;
  impl.name = name;
  impl.end = EPipeEnd::Server;
  impl.transport.reset();  // an endpoint of an earlier Listen
  if (error != 0) {
    impl.FailLocked({EChannelFailure::OpenFailed, error});
    return false;
  }
  impl.transport = std::move(transport);
  impl.SetStateLocked(EChannelState::Listening);
  return true;
}

// Starts the worker on the server endpoint that Listen made, or on a new client end.
bool NamedPipeChannel::StartWorker(const std::wstring& name, EPipeEnd end) {
  Impl& impl = *m_impl;
  if (end == EPipeEnd::Client && impl.worker.joinable()) Close();
  auto client = end == EPipeEnd::Client ? std::make_unique<detail::PipeTransport>() : nullptr;
  {
    const std::lock_guard<std::mutex> lock(impl.mutex);
    impl.failure = {};
    impl.name = name;
    impl.end = end;
    impl.flush = Impl::EFlush::None;
    impl.writing = false;
    impl.reachedConnected = false;
    impl.directReader = false;
    impl.workerReading = false;
    impl.readersBarred = false;
    impl.inbound = Impl::Inbound();
    if (client) impl.transport = std::move(client);
    impl.SetStateLocked(EChannelState::Opening);
  }
  try {
    impl.worker = std::thread([&impl] { impl.RunWorker(); });
  } catch (const std::system_error&) {
    return impl.Fail(EChannelFailure::OpenFailed);
  }
  return true;
}

bool NamedPipeChannel::WaitForConnection() {
  Impl& impl = *m_impl;
  EChannelState state;
  {
    const std::lock_guard<std::mutex> lock(impl.mutex);
    state = impl.state;
  }
  if (state == EChannelState::Listening && !StartWorker(impl.name, EPipeEnd::Server)) {
    return false;
  }
  std::unique_lock<std::mutex> lock(impl.mutex);
  if (impl.changed.wait_for(lock, milliseconds(impl.openTimeLimitMs.load()),
                            [&impl] { return impl.state != EChannelState::Opening; })) {
    return impl.reachedConnected;
  }
  // The worker goes on waiting for its client up to its own time limit.
  impl.failure = {EChannelFailure::OpenTimedOut, 0};
  impl.NotifyEndedLocked();
  impl.changed.notify_all();
  return false;
}

void NamedPipeChannel::NotifyPeerExited() {
  Impl& impl = *m_impl;
  const std::lock_guard<std::mutex> lock(impl.mutex);
  impl.peerExited = true;
  impl.WakeWorkerLocked();
}

void NamedPipeChannel::Close() {
  Impl& impl = *m_impl;
  if (impl.worker.joinable()) {
    {
      std::unique_lock<std::mutex> lock(impl.mutex);
      if (impl.state == EChannelState::Connected) {
        impl.SetStateLocked(EChannelState::Draining);
        impl.changed.wait_for(lock, milliseconds(impl.timeLimitMs.load()), [&impl] {
          return impl.state != EChannelState::Draining || (impl.sendQueue.empty() && !impl.writing);
        });
      }
      if (impl.state != EChannelState::Failed) impl.SetStateLocked(EChannelState::Stopping);
      impl.WakeWorkerLocked();
    }
    impl.worker.join();
  }
  const std::lock_guard<std::mutex> lock(impl.mutex);
  impl.transport.reset();
  impl.sendQueue.clear();
  impl.begun.reset();
  impl.DropReceivedLocked();
  impl.answerDue = false;
  impl.writing = false;
  impl.interrupted = false;
  impl.SetStateLocked(EChannelState::Closed);
}

bool NamedPipeChannel::Post(std::string message) {
  Impl& impl = *m_impl;
  const std::lock_guard<std::mutex> lock(impl.mutex);
  impl.PostLocked(std::move(message));
  return true;
}

EWaitResult NamedPipeChannel::Ask(std::string message, std::string& answer, milliseconds timeout) {
  Impl& impl = *m_impl;
  const Deadline deadline = WaitDeadline(timeout);
  std::unique_lock<std::mutex> lock(impl.mutex);
  // The reading is taken before the question goes out, so that an answer that comes at once
  // does not wake the worker.
  const bool claimed = impl.receiveQueue.empty() && !impl.interrupted &&
                       impl.failure.Failure == EChannelFailure::None &&
                       impl.CanReadDirectlyLocked();
  if (claimed) impl.ClaimReadingLocked();
  impl.PostLocked(std::move(message));
  return impl.WaitLocked(lock, answer, deadline, claimed);
}

bool NamedPipeChannel::HasMessage() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return !m_impl->receiveQueue.empty();
}

std::size_t NamedPipeChannel::ReceivedCount() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->receiveQueue.size();
}

bool NamedPipeChannel::TakeMessage(std::string& message) {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  if (m_impl->receiveQueue.empty()) return false;
  m_impl->TakeFrontLocked(message);
  return true;
}

bool NamedPipeChannel::WaitUntilNothingReceived(milliseconds timeout) {
  Impl& impl = *m_impl;
  std::unique_lock<std::mutex> lock(impl.mutex);
  return impl.changed.wait_for(lock, timeout, [&impl] { return impl.receiveQueue.empty(); });
}

EWaitResult NamedPipeChannel::WaitForMessage(std::string& message, milliseconds timeout) {
  Impl& impl = *m_impl;
  const Deadline deadline = WaitDeadline(timeout);
  std::unique_lock<std::mutex> lock(impl.mutex);
  return impl.WaitLocked(lock, message, deadline, false);
}

bool NamedPipeChannel::WaitForFailure() {
  Impl& impl = *m_impl;
  std::unique_lock<std::mutex> lock(impl.mutex);
  impl.endedOrInterrupted.wait(
      lock, [&impl] { return impl.interrupted || impl.failure.Failure != EChannelFailure::None; });
  return impl.failure.Failure != EChannelFailure::None;
}

void NamedPipeChannel::InterruptWaits() {
  Impl& impl = *m_impl;
  const std::lock_guard<std::mutex> lock(impl.mutex);
  impl.interrupted = true;
  impl.NotifyEndedLocked();
}

bool NamedPipeChannel::HasError() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->failure.Failure != EChannelFailure::None;
}

CChannelFailure NamedPipeChannel::Failure() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->failure;
}

std::wstring NamedPipeChannel::ErrorText() const { return TextOf(Failure()); }

std::wstring NamedPipeChannel::TakeErrorText() {
  std::wstring text;
  TakeFailure(text);
  return text;
}

CChannelFailure NamedPipeChannel::TakeFailure(std::wstring& text) {
  CChannelFailure failure;
  {
    const std::lock_guard<std::mutex> lock(m_impl->mutex);
    failure = std::exchange(m_impl->failure, CChannelFailure());
  }
  text = TextOf(failure);
  return failure;
}

std::wstring NamedPipeChannel::TextOf(const CChannelFailure& failure) {
  const auto index = static_cast<std::size_t>(failure.Failure);
  if (index >= std::size(kFailureTexts)) return std::wstring();
  const FailureText& text = kFailureTexts[index];
  // A code the format does not use is ignored by the formatter.
  return FormatWString(text.format, text.message, static_cast<unsigned>(failure.Code));
}

EChannelState NamedPipeChannel::State() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->state;
}

bool NamedPipeChannel::IsConnected() const {
  const EChannelState state = State();
  return state == EChannelState::Connected || state == EChannelState::Draining;
}

bool NamedPipeChannel::IsConnecting() const { return State() == EChannelState::Opening; }

bool NamedPipeChannel::IsFlushRequested() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->flush == Impl::EFlush::Requested;
}

bool NamedPipeChannel::IsFlushed() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->flush == Impl::EFlush::Done;
}

void NamedPipeChannel::RequestFlush() {
  Impl& impl = *m_impl;
  const std::lock_guard<std::mutex> lock(impl.mutex);
  impl.flush = Impl::EFlush::Requested;
  impl.WakeWorkerLocked();
}

bool NamedPipeChannel::WaitForFlush(milliseconds timeout) {
  Impl& impl = *m_impl;
  std::unique_lock<std::mutex> lock(impl.mutex);
  impl.changed.wait_for(lock, timeout, [&impl] {
    return impl.flush == Impl::EFlush::Done || !impl.WorkerRunningLocked();
  });
  return impl.flush == Impl::EFlush::Done;
}

std::uint32_t NamedPipeChannel::TimeLimitMs() const { return m_impl->timeLimitMs; }
void NamedPipeChannel::SetTimeLimitMs(std::uint32_t milliseconds) {
  m_impl->timeLimitMs = milliseconds;
}

std::uint32_t NamedPipeChannel::PacketSize() const { return m_impl->packetSize; }
void NamedPipeChannel::SetPacketSize(std::uint32_t bytes) { m_impl->packetSize = bytes; }

std::uint32_t NamedPipeChannel::MaxPacketSize() const { return m_impl->maxPacketSize; }
void NamedPipeChannel::SetMaxPacketSize(std::uint32_t bytes) { m_impl->maxPacketSize = bytes; }

std::size_t NamedPipeChannel::MaxQueuedMessages() const { return m_impl->maxQueuedMessages; }
void NamedPipeChannel::SetMaxQueuedMessages(std::size_t count) {
  m_impl->maxQueuedMessages = count;
}

std::uint64_t NamedPipeChannel::MaxQueuedBytes() const { return m_impl->maxQueuedBytes; }
void NamedPipeChannel::SetMaxQueuedBytes(std::uint64_t bytes) { m_impl->maxQueuedBytes = bytes; }

std::uint32_t NamedPipeChannel::OpenTimeLimitMs() const { return m_impl->openTimeLimitMs; }
void NamedPipeChannel::SetOpenTimeLimitMs(std::uint32_t milliseconds) {
  m_impl->openTimeLimitMs = milliseconds;
}

std::uint64_t NamedPipeChannel::MaxMessageSize() const { return m_impl->maxMessageSize; }
void NamedPipeChannel::SetMaxMessageSize(std::uint64_t bytes) { m_impl->maxMessageSize = bytes; }

std::uint32_t NamedPipeChannel::ExpectedPeerProcessId() const { return m_impl->expectedPid; }
void NamedPipeChannel::SetExpectedPeerProcessId(std::uint32_t processId) {
  m_impl->expectedPid = processId;
}

}  // namespace Pendrel
