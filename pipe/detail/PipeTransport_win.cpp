// Windows transport: the named pipe \\.\pipe\<name> in message mode, so that each packet is
// one pipe message, with overlapped I/O so that one thread can wait for a read, a write, a
// connection and the wake-up event at once.
//
// The pipe admits the current user and SYSTEM only, has a single instance, refuses remote
// clients and cannot be created over an existing name (FILE_FLAG_FIRST_PIPE_INSTANCE), so no
// other program can sit on a handler's pipe or read what travels through it.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <algorithm>  // std::max, std::min
#include <cstring>    // std::memcpy, std::memset
#include <string>
#include <utility>
#include <vector>

#include "base/Deadline.h"
#include "base/ScopedHandle_win.h"
#include "pipe/detail/PipeTransport.h"

namespace Pendrel::detail {
namespace {

// In-process buffer quota of each direction. Larger than a packet so that a writer is not
// held up packet by packet while the reader is busy.
constexpr DWORD kPipeBufferSize = 65536;

// A read that fails on completion is reported as this offset plus the error number, so that
// a reader of the log tells it apart from a read that could not be started.
constexpr std::uint32_t kCompletionOffset = 10000;

using base::ScopedFileHandle;
using base::ScopedKernelHandle;
// base::WaitTimeoutMs speaks of INFINITE without the Windows headers.
static_assert(base::kWaitForever == INFINITE);

// The one place where the system's error number is read; called right after the failing
// call.
std::uint32_t LastError() { return static_cast<std::uint32_t>(::GetLastError()); }

// The other end has gone (or never really came): reported like a failed look for data.
bool IsPeerGone(std::uint32_t error) {
  return error == ERROR_BROKEN_PIPE || error == ERROR_PIPE_NOT_CONNECTED || error == ERROR_NO_DATA;
}

std::wstring PipePath(std::wstring_view name) { return L"\\\\.\\pipe\\" + std::wstring(name); }

// A security descriptor whose DACL grants the current user and SYSTEM full access and
// nobody else any. (The default DACL of a pipe lets Everyone read; a NULL DACL lets
// everybody in.)
class PrivateSecurity {
 public:
  PrivateSecurity() = default;
  PrivateSecurity(const PrivateSecurity&) = delete;
  PrivateSecurity& operator=(const PrivateSecurity&) = delete;

  // 0 or the system's error number.
  std::uint32_t Build() {
    HANDLE rawToken = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &rawToken)) return LastError();
    const ScopedKernelHandle token(rawToken);
    DWORD size = 0;
    ::GetTokenInformation(token.Get(), TokenUser, nullptr, 0, &size);
    if (size == 0) return LastError();
    m_user.resize(size);
    if (!::GetTokenInformation(token.Get(), TokenUser, m_user.data(), size, &size)) {
      return LastError();
    }
    const PSID user = reinterpret_cast<const TOKEN_USER*>(m_user.data())->User.Sid;

    DWORD systemSize = SECURITY_MAX_SID_SIZE;
    m_system.resize(systemSize);
    if (!::CreateWellKnownSid(WinLocalSystemSid, nullptr, m_system.data(), &systemSize)) {
      return LastError();
    }
    const PSID system = m_system.data();

    // Each ACE holds its SID in place of its SidStart member.
    const DWORD aclSize = sizeof(ACL) + 2 * (sizeof(ACCESS_ALLOWED_ACE) - sizeof(DWORD)) +
                          ::GetLengthSid(user) + ::GetLengthSid(system);
    m_acl.resize(aclSize);
    auto* const acl = reinterpret_cast<ACL*>(m_acl.data());
    if (!::InitializeAcl(acl, aclSize, ACL_REVISION) ||
        !::AddAccessAllowedAce(acl, ACL_REVISION, GENERIC_ALL, user) ||
        !::AddAccessAllowedAce(acl, ACL_REVISION, GENERIC_ALL, system) ||
        !::InitializeSecurityDescriptor(&m_descriptor, SECURITY_DESCRIPTOR_REVISION) ||
        !::SetSecurityDescriptorDacl(&m_descriptor, TRUE, acl, FALSE)) {
      return LastError();
    }
    m_attributes.nLength = sizeof(m_attributes);
    m_attributes.lpSecurityDescriptor = &m_descriptor;
    m_attributes.bInheritHandle = FALSE;
    return 0;
  }

  SECURITY_ATTRIBUTES* Attributes() { return &m_attributes; }

 private:
  std::vector<BYTE> m_user;
  std::vector<BYTE> m_system;
  std::vector<BYTE> m_acl;
  SECURITY_DESCRIPTOR m_descriptor{};
  SECURITY_ATTRIBUTES m_attributes{};
};

// One kind of overlapped operation (connect, read or write), at most one in flight.
struct Operation {
  ScopedKernelHandle event;  // manual-reset, as overlapped I/O requires
  OVERLAPPED overlapped{};
  bool pending = false;

  // Prepares `overlapped` for a new call.
  OVERLAPPED* Begin() {
    ::ResetEvent(event.Get());
    overlapped = OVERLAPPED{};
    overlapped.hEvent = event.Get();
    return &overlapped;
  }
  bool Completed() const { return HasOverlappedIoCompleted(&overlapped); }
};

}  // namespace

struct PipeTransport::Impl {
  ScopedKernelHandle wake;  // auto-reset: one wake-up ends one wait
  std::uint32_t wakeError = 0;
  ScopedFileHandle pipe;
  Operation connect;
  Operation read;
  Operation write;

  std::vector<char> packet;
  std::size_t packetLength = 0;
  std::string outgoing;
  std::uint32_t writeError = 0;  // WriteFile failed at once; reported by the next Wait

  std::uint32_t CreateEvents() {
    for (Operation* operation : {&connect, &read, &write}) {
      operation->event.Reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
      if (!operation->event) return LastError();
    }
    return 0;
  }

  void StartRead(std::size_t readSize, TransportEvents& events) {
    if (packet.size() < readSize) packet.resize(readSize);
    if (!::ReadFile(pipe.Get(), packet.data(), static_cast<DWORD>(packet.size()), nullptr,
                    read.Begin())) {
      const std::uint32_t error = LastError();
      // ERROR_MORE_DATA: a longer packet has been read in part; the rest follows on
      // completion.
      if (error != ERROR_IO_PENDING && error != ERROR_MORE_DATA) {
        events.failure = IsPeerGone(error) ? ETransportFailure::Probe : ETransportFailure::Read;
        events.code = error;
        return;
      }
    }
    read.pending = true;
  }

  void FinishRead(TransportEvents& events, std::size_t maxPacket) {
    read.pending = false;
    DWORD got = 0;
    if (::GetOverlappedResult(pipe.Get(), &read.overlapped, &got, FALSE)) {
      packetLength = got;
      events.received = true;
      return;
    }
    const std::uint32_t error = LastError();
    if (error == ERROR_MORE_DATA) return ReadRest(got, events, maxPacket);
    events.failure = IsPeerGone(error) ? ETransportFailure::Probe : ETransportFailure::Read;
    events.code = IsPeerGone(error) ? error : kCompletionOffset + error;
  }

  // The packet is longer than the buffer: fetch the rest of this one pipe message, which is
  // already in the pipe.
  void ReadRest(DWORD got, TransportEvents& events, std::size_t maxPacket) {
    DWORD left = 0;
    if (!::PeekNamedPipe(pipe.Get(), nullptr, 0, nullptr, nullptr, &left)) {
      events.failure = ETransportFailure::Read;
      events.code = LastError();
      return;
    }
    const std::size_t total = std::size_t{got} + left;
    if (total > maxPacket) {
      events.failure = ETransportFailure::Read;
      events.code = kTooLargeCode;
      return;
    }
    if (packet.size() < total) packet.resize(total);
    DWORD more = 0;
    if (!::ReadFile(pipe.Get(), packet.data() + got, left, nullptr, read.Begin())) {
      const std::uint32_t error = LastError();
      if (error != ERROR_IO_PENDING) {
        events.failure = ETransportFailure::Read;
        events.code = error;
        return;
      }
    }
    if (!::GetOverlappedResult(pipe.Get(), &read.overlapped, &more, TRUE)) {
      events.failure = ETransportFailure::Read;
      events.code = kCompletionOffset + LastError();
      return;
    }
    packetLength = std::size_t{got} + more;
    events.received = true;
  }

  void FinishWrite(TransportEvents& events) {
    write.pending = false;
    DWORD wrote = 0;
    if (!::GetOverlappedResult(pipe.Get(), &write.overlapped, &wrote, FALSE)) {
      events.failure = ETransportFailure::Write;
      events.code = LastError();
    } else if (wrote != outgoing.size()) {
      events.failure = ETransportFailure::Write;
      events.code = kShortWriteCode;
    } else {
      events.sent = true;
    }
  }

  void StartWrite();

  // Ends the wait for a client; the operation must not outlive its OVERLAPPED.
  void CancelConnect() {
    ::CancelIoEx(pipe.Get(), &connect.overlapped);
    DWORD ignored = 0;
    ::GetOverlappedResult(pipe.Get(), &connect.overlapped, &ignored, TRUE);
    connect.pending = false;
  }

  // Whether the connected client may stay: of the expected process, when one is set.
  // Only this user and SYSTEM can open the pipe at all.
  bool ClientIsAcceptable(std::uint32_t expectedPid) {
    if (expectedPid == 0) return true;
    ULONG clientPid = 0;
    return ::GetNamedPipeClientProcessId(pipe.Get(), &clientPid) && clientPid == expectedPid;
  }
};

PipeTransport::PipeTransport() : m_impl(std::make_unique<Impl>()) {
  m_impl->wake.Reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
  if (!m_impl->wake) m_impl->wakeError = LastError();
}

PipeTransport::~PipeTransport() { Disconnect(); }

std::uint32_t PipeTransport::Listen(std::wstring_view name) {
  Impl& impl = *m_impl;
  if (impl.wakeError != 0) return impl.wakeError;
  PrivateSecurity security;
  if (const std::uint32_t error = security.Build()) return error;
  impl.pipe.Reset(::CreateNamedPipeW(
      PipePath(name).c_str(),
      PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
      PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1,
      kPipeBufferSize, kPipeBufferSize, 0, security.Attributes()));
  if (!impl.pipe) return LastError();
  // FILE_FLAG_FIRST_PIPE_INSTANCE refuses a name that another program holds already. Not
  // every implementation honours it (Wine 8 does not); an instance made beside somebody
  // else's shows in the pipe's instance count, and the name is refused all the same.
  DWORD instances = 0;
  if (!::GetNamedPipeHandleStateW(impl.pipe.Get(), nullptr, &instances, nullptr, nullptr, nullptr,
                                  0)) {
    const std::uint32_t error = LastError();
    impl.pipe.Reset();
    return error;
  }
  if (instances != 1) {
    impl.pipe.Reset();
    return ERROR_ACCESS_DENIED;
  }
  return impl.CreateEvents();
}

EAcceptResult PipeTransport::Accept(std::uint32_t expectedPid, base::Deadline deadline,
                                    std::uint32_t& error) {
  Impl& impl = *m_impl;
  for (;;) {
    bool connected = false;
    if (!impl.connect.pending) {
      if (::ConnectNamedPipe(impl.pipe.Get(), impl.connect.Begin())) {
        connected = true;
      } else {
        const std::uint32_t failure = LastError();
        if (failure == ERROR_PIPE_CONNECTED) {
          connected = true;  // the client came before the call
        } else if (failure == ERROR_NO_DATA) {
          ::DisconnectNamedPipe(impl.pipe.Get());  // the client came and went
          continue;
        } else if (failure == ERROR_IO_PENDING) {
          impl.connect.pending = true;
        } else {
          error = failure;
          return EAcceptResult::Failed;
        }
      }
    }
    if (impl.connect.pending) {
      const HANDLE handles[] = {impl.connect.event.Get(), impl.wake.Get()};
      const DWORD result =
          ::WaitForMultipleObjects(2, handles, FALSE, base::WaitTimeoutMs(deadline));
      if (result == WAIT_OBJECT_0) {
        impl.connect.pending = false;
        DWORD ignored = 0;
        if (::GetOverlappedResult(impl.pipe.Get(), &impl.connect.overlapped, &ignored, FALSE)) {
          connected = true;
        } else if (const std::uint32_t failure = LastError(); failure == ERROR_NO_DATA) {
          ::DisconnectNamedPipe(impl.pipe.Get());
          continue;
        } else {
          error = failure;
          return EAcceptResult::Failed;
        }
      } else if (result == WAIT_OBJECT_0 + 1) {
        return EAcceptResult::Woken;  // the connection stays pending for the next call
      } else if (result != WAIT_TIMEOUT) {
        error = LastError();
        impl.CancelConnect();
        return EAcceptResult::Failed;
      }
    }
    if (connected) {
      if (impl.ClientIsAcceptable(expectedPid)) return EAcceptResult::Connected;
      // Not a byte has been read or written; the client sees its pipe broken.
      ::DisconnectNamedPipe(impl.pipe.Get());
    }
    if (base::Passed(deadline)) {
      if (impl.connect.pending) impl.CancelConnect();
      return EAcceptResult::TimedOut;
    }
  }
}

std::uint32_t PipeTransport::Connect(std::wstring_view name) {
  Impl& impl = *m_impl;
  if (impl.wakeError != 0) return impl.wakeError;
  // SECURITY_IDENTIFICATION: the server may learn who we are but not act as us.
  impl.pipe.Reset(::CreateFileW(
      PipePath(name).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
      FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
  if (!impl.pipe) return LastError();
  DWORD mode = PIPE_READMODE_MESSAGE;
  if (!::SetNamedPipeHandleState(impl.pipe.Get(), &mode, nullptr, nullptr)) {
    const std::uint32_t error = LastError();
    impl.pipe.Reset();
    return error;
  }
  return impl.CreateEvents();
}

void PipeTransport::Send(const PacketPieces& packet) {
  // One overlapped write of one buffer per packet: the pieces are put together once.
  Impl& impl = *m_impl;
  impl.outgoing.resize(packet.Size());
  char* const out = impl.outgoing.data();
  std::memcpy(out, packet.header, kPacketHeaderSize);
  if (!packet.payload.empty()) {
    std::memcpy(out + kPacketHeaderSize, packet.payload.data(), packet.payload.size());
  }
  std::memset(out + kPacketHeaderSize + packet.payload.size(), 0, packet.filler);
  impl.StartWrite();
}

void PipeTransport::Send(std::string_view packet) {
  Impl& impl = *m_impl;
  impl.outgoing.assign(packet.data(), packet.size());
  impl.StartWrite();
}

void PipeTransport::Impl::StartWrite() {
  Impl& impl = *this;
  impl.writeError = 0;
  if (!::WriteFile(impl.pipe.Get(), impl.outgoing.data(), static_cast<DWORD>(impl.outgoing.size()),
                   nullptr, impl.write.Begin())) {
    const std::uint32_t error = LastError();
    if (error != ERROR_IO_PENDING) {
      impl.writeError = error;
      return;
    }
  }
  impl.write.pending = true;
}

bool PipeTransport::SendNow(const PacketPieces&) { return false; }

bool PipeTransport::Sending() const { return m_impl->write.pending || m_impl->writeError != 0; }

// The read in flight belongs to the driving thread, so there is no direct reader and
// `mayRead` is never asked.
TransportEvents PipeTransport::Wait(base::Deadline deadline, std::size_t readSize,
                                    std::size_t maxPacket, const std::function<bool()>&) {
  Impl& impl = *m_impl;
  TransportEvents events;
  impl.packetLength = 0;
  if (impl.writeError != 0) {
    events.failure = ETransportFailure::Write;
    events.code = std::exchange(impl.writeError, 0);
    return events;
  }
  if (!impl.pipe) {
    events.failure = ETransportFailure::Probe;
    events.code = ERROR_PIPE_NOT_CONNECTED;
    return events;
  }
  // A read is always in flight while connected, so that arriving data ends the wait.
  if (!impl.read.pending) {
    impl.StartRead(readSize, events);
    if (events.failure != ETransportFailure::None) return events;
  }

  HANDLE handles[3];
  DWORD count = 0;
  handles[count++] = impl.read.event.Get();
  if (impl.write.pending) handles[count++] = impl.write.event.Get();
  handles[count++] = impl.wake.Get();
  // What has completed already is collected without sleeping.
  const bool ready = impl.read.Completed() || (impl.write.pending && impl.write.Completed());
  const DWORD result =
      ::WaitForMultipleObjects(count, handles, FALSE, ready ? 0 : base::WaitTimeoutMs(deadline));
  if (result == WAIT_FAILED) {
    events.failure = ETransportFailure::Probe;
    events.code = LastError();
    return events;
  }
  if (impl.read.pending && impl.read.Completed()) impl.FinishRead(events, maxPacket);
  // A write that completed is reported even when the read failed; of two failures the
  // read's is kept, as it usually names the cause (the peer has gone).
  if (impl.write.pending && impl.write.Completed()) {
    TransportEvents written;
    impl.FinishWrite(written);
    events.sent = written.sent;
    if (events.failure == ETransportFailure::None) {
      events.failure = written.failure;
      events.code = written.code;
    }
  }
  return events;
}

std::size_t PipeTransport::PacketLength(EReader) const { return m_impl->packetLength; }

std::string_view PipeTransport::PacketHead(EReader) const {
  return std::string_view(m_impl->packet.data(),
                          std::min<std::size_t>(m_impl->packetLength, kPacketHeaderSize));
}

// A message-mode pipe hands over a packet only whole, into the buffer the read in flight
// was given: the payload is copied from there.
std::uint32_t PipeTransport::TakePacket(char* payload, std::size_t payloadLength, EReader) {
  const Impl& impl = *m_impl;
  if (impl.packetLength < kPacketHeaderSize + payloadLength) return kInvalidDataCode;
  if (payloadLength > 0) {
    std::memcpy(payload, impl.packet.data() + kPacketHeaderSize, payloadLength);
  }
  return 0;
}

std::string_view PipeTransport::Packet() {
  return std::string_view(m_impl->packet.data(), m_impl->packetLength);
}

// One overlapped read is always in flight for the driving thread; a second reader could only
// race it.
bool PipeTransport::SupportsDirectReading() { return false; }

void PipeTransport::WatchInput(bool) {}

TransportEvents PipeTransport::WaitToRead(base::Deadline, std::size_t) {
  TransportEvents events;
  events.failure = ETransportFailure::Probe;
  events.code = ERROR_NOT_SUPPORTED;
  return events;
}

void PipeTransport::WakeReader() noexcept {}

void PipeTransport::Disconnect() {
  Impl& impl = *m_impl;
  if (!impl.pipe) return;
  // Pending operations write into our buffers; they must end before anything is freed.
  Operation* const operations[] = {&impl.connect, &impl.read, &impl.write};
  for (Operation* operation : operations) {
    if (!operation->pending) continue;
    ::CancelIoEx(impl.pipe.Get(), &operation->overlapped);
    DWORD ignored = 0;
    ::GetOverlappedResult(impl.pipe.Get(), &operation->overlapped, &ignored, TRUE);
    operation->pending = false;
  }
  // Closed without DisconnectNamedPipe, which would throw away what the peer has not read.
  impl.pipe.Reset();
  impl.writeError = 0;
}

void PipeTransport::Wake() noexcept {
  if (m_impl->wake) ::SetEvent(m_impl->wake.Get());
}

std::wstring EndpointFolder() { return L"\\\\.\\pipe"; }

}  // namespace Pendrel::detail
