#include "pipe/NamedPipeChannel.h"

#include <algorithm>  // std::min, std::max
#include <atomic>
#include <condition_variable>
#include <deque>
#include <iterator>  // std::size
#include <limits>
#include <mutex>
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

// Every text the channel reports. Hosts and handlers' operators read these in logs, so the
// wording (including the misspelt "именнованным") is kept exactly as it has always been.
enum class EChannelText {
  OpenTimedOut,
  OpenFailed,
  NoClient,
  Unhandled,
  ProbeFailed,
  ReadFailed,
  PacketTimedOut,
  WriteFailed,
};

struct ChannelText {
  EChannelText id;
  const wchar_t* message;
  // Applied to the message and up to two numbers. "%ls" takes the wide message the same
  // way on every platform.
  const wchar_t* format;
};

constexpr wchar_t kReadFailedMessage[] = L"Ошибка чтения данных через NamedPipe";

constexpr ChannelText kTexts[] = {
    {EChannelText::OpenTimedOut,
     L"Вышло время ожидания создания нового подключения по именнованным каналам", L"%ls"},
    {EChannelText::OpenFailed, L"Ошибка открытия канала NamedPipe", L"%ls\n"},
    {EChannelText::NoClient, L"Нет входящих подключений по каналу NamedPipe", L"%ls\n"},
    {EChannelText::Unhandled, L"Необработанное исключение при создании канала NamedPipe", L"%ls\n"},
    {EChannelText::ProbeFailed, kReadFailedMessage, L"%ls (1) #%u\n"},
    {EChannelText::ReadFailed, kReadFailedMessage, L"%ls (2) #%u\n"},
    {EChannelText::PacketTimedOut,
     L"Ошибка чтения данных через NamedPipe - вышло время ожидания пакета", L"%ls: %u / %u\n"},
    {EChannelText::WriteFailed, L"Ошибка записи данных в NamedPipe", L"%ls #%u\n"},
};

constexpr bool TextsAreInEnumOrder() {
  for (std::size_t i = 0; i < std::size(kTexts); ++i) {
    if (static_cast<std::size_t>(kTexts[i].id) != i) return false;
  }
  return true;
}
static_assert(TextsAreInEnumOrder(), "kTexts is indexed by EChannelText");

std::wstring MakeText(EChannelText id, std::uint32_t first = 0, std::uint32_t second = 0) {
  const ChannelText& text = kTexts[static_cast<std::size_t>(id)];
  // Numbers the format does not use are ignored by the formatter.
  return FormatWString(text.format, text.message, static_cast<unsigned>(first),
                       static_cast<unsigned>(second));
}

EChannelText TextOfFailure(ETransportFailure failure) {
  switch (failure) {
    case ETransportFailure::Probe:
      return EChannelText::ProbeFailed;
    case ETransportFailure::Write:
      return EChannelText::WriteFailed;
    case ETransportFailure::Read:
    case ETransportFailure::None:
      break;
  }
  return EChannelText::ReadFailed;
}

static_assert(NamedPipeChannel::kHeaderSize == detail::kPacketHeaderSize);

// P: packets are never smaller than 128 bytes, whatever the field says.
std::uint32_t WirePacketSize(std::uint32_t packetSize) {
  return std::max(packetSize, NamedPipeChannel::kMinPacketSize);
}

// The largest packet worth receiving: one that could carry the largest message, but never
// less than a packet of the current size.
std::size_t MaxPacketSize(std::uint32_t wirePacketSize, std::uint64_t maxMessageSize) {
  constexpr std::uint64_t kLimit = std::numeric_limits<std::uint32_t>::max();
  const std::uint64_t carrying = std::min(maxMessageSize, kLimit) + NamedPipeChannel::kHeaderSize;
  return static_cast<std::size_t>(
      std::min(kLimit, std::max<std::uint64_t>(wirePacketSize, carrying)));
}

}  // namespace

struct NamedPipeChannel::Impl {
  std::atomic<std::uint32_t> timeLimitMs{kDefaultTimeLimitMs};
  std::atomic<std::uint32_t> packetSize{kDefaultPacketSize};  // raised by the worker
  std::atomic<std::uint32_t> openTimeLimitMs{kDefaultOpenTimeLimitMs};
  std::atomic<std::uint64_t> maxMessageSize{kDefaultMaxMessageSize};
  std::atomic<std::uint32_t> expectedPid{0};

  mutable std::mutex mutex;
  // Notified, under `mutex`, whenever a queue, the error text or a flag changes.
  std::condition_variable changed;
  std::deque<std::string> sendQueue;     // guarded by mutex
  std::deque<std::string> receiveQueue;  // guarded by mutex
  std::wstring errorText;                // guarded by mutex
  bool sending = false;           // guarded by mutex: a message off the queue is being written
  bool workerRunning = false;     // guarded by mutex
  bool connectSucceeded = false;  // guarded by mutex
  // The transport of the open channel; Post and RequestFlush wake it under the mutex.
  std::unique_ptr<detail::PipeTransport> transport;  // guarded by mutex

  // Written under `mutex` so that waiters cannot miss a change; read anywhere.
  std::atomic<bool> stop{false};
  std::atomic<bool> connected{false};
  std::atomic<bool> connecting{false};
  std::atomic<bool> flushRequest{false};
  std::atomic<bool> flushed{false};
  std::atomic<bool> peerExited{false};  // the expected client's process has ended

  // Set by Open before the worker starts and left alone until it has been joined.
  std::wstring name;
  EPipeEnd end = EPipeEnd::Server;
  bool listening = false;  // the server endpoint was made by Listen on the owner's thread
  // Made by Listen and waiting for WaitForConnection to hand it to the worker.
  std::unique_ptr<detail::PipeTransport> pendingEndpoint;  // guarded by mutex
  std::wstring listeningName;                              // guarded by mutex
  detail::PipeTransport* workerTransport = nullptr;
  std::thread worker;

  void RunWorker() noexcept;
  bool WaitForClient();
  bool FailConnecting(EChannelText text);
  void Exchange();
  // Ends the exchange: whoever sees the error text also sees the channel disconnected.
  void Fail(std::wstring text) {
    const std::lock_guard<std::mutex> lock(mutex);
    errorText = std::move(text);
    connected = false;
    changed.notify_all();
  }
};

void NamedPipeChannel::Impl::RunWorker() noexcept {
  // Nothing may leave the thread: every failure becomes the error text.
  try {
    if (WaitForClient()) Exchange();
  } catch (...) {
    try {
      std::wstring text = MakeText(EChannelText::Unhandled);
      const std::lock_guard<std::mutex> lock(mutex);
      errorText = std::move(text);
    } catch (...) {
      // Out of memory even for the text: the stop flag below still tells the owner.
    }
    const std::lock_guard<std::mutex> lock(mutex);
    stop = true;
  }
  // The peer learns at once that nobody reads or writes any more.
  workerTransport->Disconnect();
  const std::lock_guard<std::mutex> lock(mutex);
  connected = false;
  connecting = false;
  sending = false;
  workerRunning = false;
  changed.notify_all();
}

bool NamedPipeChannel::Impl::FailConnecting(EChannelText text) {
  std::wstring message = MakeText(text);
  const std::lock_guard<std::mutex> lock(mutex);
  errorText = std::move(message);
  stop = true;
  connecting = false;
  changed.notify_all();
  return false;
}

bool NamedPipeChannel::Impl::WaitForClient() {
  detail::PipeTransport& pipe = *workerTransport;
  if (end == EPipeEnd::Server) {
    if (!listening && pipe.Listen(name) != 0) return FailConnecting(EChannelText::OpenFailed);
    const Deadline deadline = Clock::now() + milliseconds(timeLimitMs.load());
    for (bool accepted = false; !accepted;) {
      // Close sets the stop flag to end the wait; that is reported like a time-out.
      if (stop) return FailConnecting(EChannelText::NoClient);
      // Once the client's process is known to have ended, one last look without waiting:
      // a client that connected just before it ended is still taken.
      const bool ended = peerExited;
      std::uint32_t error = 0;
      switch (pipe.Accept(expectedPid.load(), ended ? Clock::now() : deadline, error)) {
        case detail::EAcceptResult::Connected:
          accepted = true;
          break;
        case detail::EAcceptResult::Woken:
          break;
        case detail::EAcceptResult::TimedOut:
        case detail::EAcceptResult::Failed:
          return FailConnecting(EChannelText::NoClient);
      }
    }
  } else if (pipe.Connect(name) != 0) {
    return FailConnecting(EChannelText::OpenFailed);
  }
  const std::lock_guard<std::mutex> lock(mutex);
  connected = true;
  connectSucceeded = true;
  connecting = false;
  changed.notify_all();
  return true;
}

// Reads and writes at the same time, so that two ends that both send large messages cannot
// block each other; one message is written at a time, packet after packet.
void NamedPipeChannel::Impl::Exchange() {
  detail::PipeTransport& pipe = *workerTransport;
  const bool server = end == EPipeEnd::Server;
  PacketWriter writer;
  MessageAssembler assembler;
  Clock::time_point lastPacket{};
  Deadline packetDeadline = Deadline::max();

  while (!stop) {
    const milliseconds limit(timeLimitMs.load());
    if (!writer.Active()) {
      const std::lock_guard<std::mutex> lock(mutex);
      if (!sendQueue.empty()) {
        writer.Begin(std::move(sendQueue.front()), WirePacketSize(packetSize));
        sendQueue.pop_front();
        sending = true;
      }
    }
    if (writer.Active() && !pipe.Sending()) {
      pipe.Send(writer.CurrentPacket());
      packetDeadline = Clock::now() + limit;
    }
    // Flushed means: everything posted before the request has been written whole.
    if (flushRequest && !writer.Active()) {
      const std::lock_guard<std::mutex> lock(mutex);
      flushRequest = false;
      flushed = true;
      changed.notify_all();
    }

    Deadline deadline = Deadline::max();
    // A gap of more than the limit fails, so the wait runs just past it.
    if (assembler.InMessage()) deadline = lastPacket + limit + milliseconds(1);
    if (pipe.Sending()) deadline = std::min(deadline, packetDeadline);
    const std::uint32_t wireSize = WirePacketSize(packetSize);
    const detail::TransportEvents events =
        pipe.Wait(deadline, wireSize, MaxPacketSize(wireSize, maxMessageSize));

    // A packet that arrived is handled before a failure seen in the same wait, so that a
    // message sent just before the peer left is still delivered.
    if (events.received) {
      const std::string_view packet = pipe.Packet();
      // A handler may use larger packets than ours; the server end adopts their size.
      if (server && packet.size() > packetSize) {
        packetSize = static_cast<std::uint32_t>(packet.size());
      }
      lastPacket = Clock::now();
      switch (assembler.Add(packet, WirePacketSize(packetSize), maxMessageSize)) {
        case MessageAssembler::EStep::Complete: {
          std::string message = assembler.TakeMessage();
          const std::lock_guard<std::mutex> lock(mutex);
          receiveQueue.push_back(std::move(message));
          changed.notify_all();
          break;
        }
        case MessageAssembler::EStep::Partial:
          break;
        case MessageAssembler::EStep::Invalid:
          return Fail(MakeText(EChannelText::ReadFailed, detail::kInvalidDataCode));
        case MessageAssembler::EStep::TooLarge:
          return Fail(MakeText(EChannelText::ReadFailed, detail::kTooLargeCode));
      }
    }
    if (events.failure != ETransportFailure::None) {
      return Fail(MakeText(TextOfFailure(events.failure), events.code));
    }
    if (events.sent && writer.PacketSent()) {
      const std::lock_guard<std::mutex> lock(mutex);
      sending = false;
      changed.notify_all();
    }

    const Clock::time_point now = Clock::now();
    if (assembler.InMessage() && now - lastPacket > limit) {
      // The first number has always been 0; readers of old logs expect it.
      return Fail(MakeText(EChannelText::PacketTimedOut, 0, assembler.Remaining()));
    }
    if (pipe.Sending() && now >= packetDeadline) {
      return Fail(MakeText(EChannelText::WriteFailed, detail::kTimedOutCode));
    }
  }
}

NamedPipeChannel::NamedPipeChannel() : m_impl(std::make_unique<Impl>()) {}

NamedPipeChannel::~NamedPipeChannel() { Close(); }

bool NamedPipeChannel::Open(const std::wstring& name, EPipeEnd end) {
  if (end == EPipeEnd::Server) return Listen(name) && WaitForConnection();
  return StartWorker(name, end, nullptr) && WaitForConnection();
}

bool NamedPipeChannel::Listen(const std::wstring& name) {
  Impl& impl = *m_impl;
  if (impl.worker.joinable()) Close();
  auto transport = std::make_unique<detail::PipeTransport>();
  // The endpoint exists before this returns, so a client started afterwards finds it; it is
  // accepted only once WaitForConnection runs, by then with the expected process id known.
  const bool made = transport->Listen(name) == 0;
  const std::lock_guard<std::mutex> lock(impl.mutex);
  impl.errorText = made ? std::wstring() : MakeText(EChannelText::OpenFailed);
  impl.peerExited = false;
  impl.listeningName = name;
  impl.pendingEndpoint = made ? std::move(transport) : nullptr;
  return made;
}

bool NamedPipeChannel::StartWorker(const std::wstring& name, EPipeEnd end,
                                   std::unique_ptr<detail::PipeTransport> listening) {
  Impl& impl = *m_impl;
  if (impl.worker.joinable()) Close();
  const bool alreadyListening = listening != nullptr;
  auto transport =
      alreadyListening ? std::move(listening) : std::make_unique<detail::PipeTransport>();
  {
    const std::lock_guard<std::mutex> lock(impl.mutex);
    impl.errorText.clear();
    impl.name = name;
    impl.end = end;
    impl.listening = alreadyListening;
    impl.stop = false;
    impl.connected = false;
    impl.connecting = true;
    impl.flushRequest = false;
    impl.flushed = false;
    impl.sending = false;
    impl.connectSucceeded = false;
    impl.workerRunning = true;
    impl.workerTransport = transport.get();
    impl.transport = std::move(transport);
  }
  try {
    impl.worker = std::thread([&impl] { impl.RunWorker(); });
  } catch (const std::system_error&) {
    impl.FailConnecting(EChannelText::OpenFailed);
    const std::lock_guard<std::mutex> lock(impl.mutex);
    impl.workerRunning = false;
    return false;
  }
  return true;
}

bool NamedPipeChannel::WaitForConnection() {
  Impl& impl = *m_impl;
  std::unique_ptr<detail::PipeTransport> listening;
  {
    const std::lock_guard<std::mutex> lock(impl.mutex);
    listening = std::move(impl.pendingEndpoint);
  }
  if (listening && !StartWorker(impl.listeningName, EPipeEnd::Server, std::move(listening))) {
    return false;
  }
  std::unique_lock<std::mutex> lock(impl.mutex);
  if (impl.changed.wait_for(lock, milliseconds(impl.openTimeLimitMs.load()),
                            [&impl] { return !impl.connecting; })) {
    return impl.connectSucceeded;
  }
  impl.errorText = MakeText(EChannelText::OpenTimedOut);
  impl.changed.notify_all();
  return false;
}

void NamedPipeChannel::NotifyPeerExited() {
  Impl& impl = *m_impl;
  const std::lock_guard<std::mutex> lock(impl.mutex);
  impl.peerExited = true;
  if (impl.transport) impl.transport->Wake();
}

void NamedPipeChannel::Close() {
  Impl& impl = *m_impl;
  if (impl.worker.joinable()) {
    {
      std::unique_lock<std::mutex> lock(impl.mutex);
      impl.changed.wait_for(lock, milliseconds(impl.timeLimitMs.load()), [&impl] {
        return !impl.connected || impl.stop || (impl.sendQueue.empty() && !impl.sending) ||
               !impl.errorText.empty();
      });
      impl.stop = true;
      impl.transport->Wake();
    }
    impl.worker.join();
  }
  const std::lock_guard<std::mutex> lock(impl.mutex);
  impl.pendingEndpoint.reset();
  impl.transport.reset();
  impl.workerTransport = nullptr;
  impl.sendQueue.clear();
  impl.receiveQueue.clear();
  impl.sending = false;
  impl.connecting = false;
  impl.changed.notify_all();
}

bool NamedPipeChannel::Post(std::string message) {
  Impl& impl = *m_impl;
  const std::lock_guard<std::mutex> lock(impl.mutex);
  impl.sendQueue.push_back(std::move(message));
  if (impl.transport) impl.transport->Wake();
  return true;
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
  message = std::move(m_impl->receiveQueue.front());
  m_impl->receiveQueue.pop_front();
  m_impl->changed.notify_all();
  return true;
}

bool NamedPipeChannel::WaitUntilNothingReceived(milliseconds timeout) {
  Impl& impl = *m_impl;
  std::unique_lock<std::mutex> lock(impl.mutex);
  return impl.changed.wait_for(lock, timeout, [&impl] { return impl.receiveQueue.empty(); });
}

EWaitResult NamedPipeChannel::WaitForMessage(std::string& message, milliseconds timeout) {
  Impl& impl = *m_impl;
  const Deadline deadline = Clock::now() + timeout;
  std::unique_lock<std::mutex> lock(impl.mutex);
  for (;;) {
    if (!impl.receiveQueue.empty()) {
      message = std::move(impl.receiveQueue.front());
      impl.receiveQueue.pop_front();
      impl.changed.notify_all();
      return EWaitResult::Message;
    }
    if (!impl.errorText.empty()) return EWaitResult::Error;
    if (Clock::now() >= deadline) return EWaitResult::TimedOut;
    impl.changed.wait_until(lock, deadline);
  }
}

bool NamedPipeChannel::HasError() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return !m_impl->errorText.empty();
}

std::wstring NamedPipeChannel::ErrorText() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->errorText;
}

std::wstring NamedPipeChannel::TakeErrorText() {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return std::exchange(m_impl->errorText, std::wstring());
}

bool NamedPipeChannel::IsConnected() const { return m_impl->connected; }
bool NamedPipeChannel::IsConnecting() const { return m_impl->connecting; }
bool NamedPipeChannel::IsStopRequested() const { return m_impl->stop; }
bool NamedPipeChannel::IsFlushRequested() const { return m_impl->flushRequest; }
bool NamedPipeChannel::IsFlushed() const { return m_impl->flushed; }

void NamedPipeChannel::RequestFlush() {
  Impl& impl = *m_impl;
  const std::lock_guard<std::mutex> lock(impl.mutex);
  impl.flushed = false;
  impl.flushRequest = true;
  if (impl.transport) impl.transport->Wake();
}

bool NamedPipeChannel::WaitForFlush(milliseconds timeout) {
  Impl& impl = *m_impl;
  std::unique_lock<std::mutex> lock(impl.mutex);
  impl.changed.wait_for(lock, timeout, [&impl] { return impl.flushed || !impl.workerRunning; });
  return impl.flushed;
}

std::uint32_t NamedPipeChannel::TimeLimitMs() const { return m_impl->timeLimitMs; }
void NamedPipeChannel::SetTimeLimitMs(std::uint32_t milliseconds) {
  m_impl->timeLimitMs = milliseconds;
}

std::uint32_t NamedPipeChannel::PacketSize() const { return m_impl->packetSize; }
void NamedPipeChannel::SetPacketSize(std::uint32_t bytes) { m_impl->packetSize = bytes; }

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
