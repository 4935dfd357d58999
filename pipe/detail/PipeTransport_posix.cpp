// Linux transport: an AF_UNIX SOCK_SEQPACKET socket, which keeps packet boundaries the way a
// Windows pipe in message mode does. A server end puts the bare name N in its folder:
// $XDG_RUNTIME_DIR/pendrel, or without that variable /tmp/pendrel-<uid>; when that one is not
// a 0700 folder of this user (somebody else made it first), a fresh private folder made by
// mkdtemp under $TMPDIR (or /tmp), once per process and removed when the process ends if it
// is empty by then. EndpointFolder() names the folder in use, which the library passes to its
// handlers as PENDREL_PIPE_DIR; a client end looks for N in $PENDREL_PIPE_DIR, else
// $XDG_RUNTIME_DIR/pendrel, else /tmp/pendrel-<uid>. The folder belongs to the user and is
// closed to everybody else; that, and a check of the peer's credentials, is what keeps other
// users out.
//
// A lock file N.lock, held by the server end while it listens, tells a live endpoint from a
// socket file left behind by a process that died. Once the expected client has connected,
// and whenever the server end fails or closes, both files are removed: nothing on disk
// outlives the wait for the connection.
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>  // flock
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>  // iovec
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>  // std::max, std::min
#include <cerrno>
#include <climits>  // IOV_MAX
#include <cstdlib>  // std::getenv, mkdtemp
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/RetryOnEintr.h"
#include "base/UniqueFd.h"
#include "json/TextConversion.h"
#include "pipe/detail/PipeTransport.h"
#include "pipe/detail/PipeTransport_posix.h"
#include "protocol/HandlerProtocol.h"

namespace Pendrel::detail {
namespace {

// The one place where errno is read; called right after the failing call.
std::uint32_t LastError() { return static_cast<std::uint32_t>(errno); }

using base::RetryOnEintr;
using base::UniqueFd;

// The filler of every packet comes from here: zeros that no write ever touches, so the
// kernel maps one shared zero page for all of it.
constexpr std::size_t kZeroBlockSize = std::size_t{64} << 10;
const char kZeroBlock[kZeroBlockSize] = {};

struct EndpointPath {
  std::string folder;
  std::string socket;
  std::string lock;
};

// An absolute path from the environment variable `variable`, or none.
const char* AbsolutePathFrom(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && value[0] == '/' ? value : nullptr;
}

// The folder must be a real folder (not a link) of this user that nobody else may enter;
// in /tmp anybody could have made it first.
std::uint32_t CheckPrivateFolder(const std::string& folder, bool create) {
  if (create && ::mkdir(folder.c_str(), 0700) != 0) {
    if (const std::uint32_t error = LastError(); error != EEXIST) return error;
  }
  struct stat info {};
  if (::lstat(folder.c_str(), &info) != 0) return LastError();
  if (!S_ISDIR(info.st_mode)) return ENOTDIR;
  if (info.st_uid != ::geteuid() || (info.st_mode & 077) != 0) return EACCES;
  return 0;
}

// The folders of the fallback without XDG_RUNTIME_DIR, shared by every transport of the
// process.
class TempFolders {
 public:
  static TempFolders& Get() {
    static TempFolders folders;
    return folders;
  }

  // <root>/pendrel-<uid>, root being /tmp but in tests.
  std::string Shared() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return SharedLocked();
  }

  // The shared folder, made if missing, when it is private to this user; else (or once that
  // happened in this process) the fresh private folder.
  std::uint32_t ForServer(std::string& folder) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fresh.empty()) {
      folder = SharedLocked();
      if (CheckPrivateFolder(folder, true) == 0) return 0;
      const char* base = AbsolutePathFrom("TMPDIR");
      std::string pattern = (base != nullptr ? std::string(base) : m_root) +
                            FormatString("/pendrel-%u-XXXXXX", static_cast<unsigned>(::geteuid()));
      if (::mkdtemp(pattern.data()) == nullptr) return LastError();
      m_fresh = std::move(pattern);
    }
    folder = m_fresh;
    return CheckPrivateFolder(folder, false);
  }

  // Test seam: the root of the shared folder. Forgets a fresh folder made so far (removing
  // it if empty).
  void SetRoot(std::string root) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    RemoveFreshLocked();
    m_root = std::move(root);
  }

 private:
  TempFolders() = default;
  // A fresh folder goes with the process once nothing is left in it.
  ~TempFolders() { RemoveFreshLocked(); }

  std::string SharedLocked() const {
    // Not std::to_string: its digit table would become an exported (GNU unique) symbol.
    return m_root + FormatString("/pendrel-%u", static_cast<unsigned>(::geteuid()));
  }
  void RemoveFreshLocked() {
    if (!m_fresh.empty()) ::rmdir(m_fresh.c_str());
    m_fresh.clear();
  }

  std::mutex m_mutex;
  std::string m_root = "/tmp";  // guarded by m_mutex
  std::string m_fresh;          // guarded by m_mutex: made by mkdtemp, or empty
};

// The folder of a server end's endpoints, made if needed and checked to be private.
std::uint32_t ServerFolder(std::string& folder) {
  if (const char* runtime = AbsolutePathFrom("XDG_RUNTIME_DIR")) {
    folder = std::string(runtime) + "/pendrel";
    return CheckPrivateFolder(folder, true);
  }
  return TempFolders::Get().ForServer(folder);
}

// The folder in which a client end looks for its server's endpoint.
std::string ClientFolder() {
  if (const char* told = AbsolutePathFrom(protocol::kPipeFolderVariable)) return told;
  if (const char* runtime = AbsolutePathFrom("XDG_RUNTIME_DIR")) {
    return std::string(runtime) + "/pendrel";
  }
  return TempFolders::Get().Shared();
}

std::uint32_t MakeEndpointPath(std::wstring_view name, std::string folder, EndpointPath& path) {
  const std::string bare = Utf16ToUtf8(name);
  if (bare.empty() || bare == "." || bare == ".." ||
      bare.find_first_of(std::string_view("/\0", 2)) != std::string::npos) {
    return EINVAL;
  }
  path.folder = std::move(folder);
  path.socket = path.folder + "/" + bare;
  path.lock = path.socket + ".lock";
  if (path.socket.size() >= sizeof(sockaddr_un{}.sun_path)) return ENAMETOOLONG;
  return 0;
}

sockaddr_un SocketAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

// Whether the peer runs as this user, and in process `expectedPid` if that is non-zero.
bool PeerIsAcceptable(int fd, std::uint32_t expectedPid) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  if (peer.uid != ::geteuid()) return false;
  return expectedPid == 0 || static_cast<std::uint32_t>(peer.pid) == expectedPid;
}

// Takes the name's lock file for this server end. EADDRINUSE while a live server holds it.
std::uint32_t LockName(const std::string& lockPath, UniqueFd& lock) {
  // A server that is closing removes its lock file while holding it; a lock won on such a
  // removed file is worthless, so the file at the path must still be the locked one.
  for (int attempt = 0; attempt < 4; ++attempt) {
    lock.Reset(RetryOnEintr(
        [&] { return ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600); }));
    if (!lock) return LastError();
    if (RetryOnEintr([&] { return ::flock(lock.Get(), LOCK_EX | LOCK_NB); }) != 0) {
      const std::uint32_t error = LastError();
      return error == EWOULDBLOCK ? EADDRINUSE : error;
    }
    struct stat held {};
    struct stat named {};
    if (::fstat(lock.Get(), &held) != 0) return LastError();
    if (::lstat(lockPath.c_str(), &named) == 0 && named.st_dev == held.st_dev &&
        named.st_ino == held.st_ino) {
      return 0;
    }
  }
  lock.Reset();
  return EADDRINUSE;
}

// Sends the pieces as one packet by sendmsg, none of them copied: header, payload, and the
// filler from the zero block. A filler of more than IOV_MAX zero blocks (a packet of 64 MiB)
// is cut short, and so is the packet then.
ssize_t SendPieces(int fd, const PacketPieces& pieces) {
  iovec parts[IOV_MAX];
  std::size_t count = 0;
  parts[count++] = {const_cast<char*>(pieces.header), kPacketHeaderSize};
  if (!pieces.payload.empty()) {
    parts[count++] = {const_cast<char*>(pieces.payload.data()), pieces.payload.size()};
  }
  for (std::size_t left = pieces.filler; left > 0 && count < IOV_MAX;) {
    const std::size_t length = std::min(left, kZeroBlockSize);
    parts[count++] = {const_cast<char*>(kZeroBlock), length};
    left -= length;
  }
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = count;
  return RetryOnEintr([&] { return ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT); });
}

}  // namespace

// A packet announced to one reader: peeked (still in the socket) until TakePacket or Packet
// receives it.
struct Announcement {
  char head[kPacketHeaderSize] = {};
  std::size_t headLength = 0;
  std::size_t packetLength = 0;
  bool announced = false;

  void Clear() {
    headLength = 0;
    packetLength = 0;
  }
};

struct PipeTransport::Impl {
  UniqueFd wake;
  UniqueFd readerWake;  // WakeReader()'s signal to the direct reader
  std::uint32_t wakeError = 0;
  UniqueFd listener;
  UniqueFd connection;
  UniqueFd lockFile;
  std::string socketPath;  // set while this server end owns the socket file
  std::string lockPath;
  dev_t socketDevice = 0;
  ino_t socketInode = 0;

  // The driving thread sleeps in `poller`, which holds `wake` and the connection. What it
  // wakes for on the connection changes from two threads (the driving one: room to write;
  // a direct reader: input), so it is kept under `interestMutex`.
  UniqueFd poller;
  std::mutex interestMutex;
  bool inputWatched = true;    // guarded by interestMutex
  bool outputWatched = false;  // guarded by interestMutex: `sendPending`, as the driving thread
                               // last told it
  std::uint32_t interest = 0;  // guarded by interestMutex: what `poller` has for the connection

  Announcement driving;      // what Wait() announced
  Announcement direct;       // what WaitToRead() announced
  std::vector<char> packet;  // what Packet() received whole
  std::size_t packetRead = 0;
  std::size_t readSize = 0;  // the size expected of packets, from the last Wait

  // The packet being written: `outgoing` when Send copied it whole, else its pieces, whose
  // payload lives in the caller's message.
  bool whole = false;
  std::string outgoing;
  PacketPieces pieces{};
  bool sendPending = false;  // `pieces` wait for room in the socket
  bool sendDone = false;     // the packet went out; reported by the next Wait
  std::uint32_t sendError = 0;

  Announcement& Of(EReader reader) { return reader == EReader::Direct ? direct : driving; }

  // Removes the server end's socket file and lock file, if it still has them.
  void RemoveFiles() {
    if (!socketPath.empty()) {
      // Only our own socket file goes; a successor may have bound the name since.
      struct stat info {};
      if (::lstat(socketPath.c_str(), &info) == 0 && info.st_dev == socketDevice &&
          info.st_ino == socketInode) {
        ::unlink(socketPath.c_str());
      }
      socketPath.clear();
    }
    if (lockFile) {
      // Removed while still held; see LockName for the server that opened it meanwhile.
      ::unlink(lockPath.c_str());
      lockFile.Reset();
      lockPath.clear();
    }
  }

  static void Drain(const UniqueFd& signal) {
    eventfd_t ignored = 0;
    RetryOnEintr([&] { return ::eventfd_read(signal.Get(), &ignored); });
  }

  // Makes the connection's poller, once connected: the wake-up signal and the connection.
  std::uint32_t Connected(UniqueFd socket) {
    UniqueFd made(::epoll_create1(EPOLL_CLOEXEC));
    if (!made) return LastError();
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = wake.Get();
    if (::epoll_ctl(made.Get(), EPOLL_CTL_ADD, wake.Get(), &event) != 0) return LastError();
    const std::lock_guard<std::mutex> lock(interestMutex);
    interest = WantedInterestLocked();
    event.events = interest;
    event.data.fd = socket.Get();
    if (::epoll_ctl(made.Get(), EPOLL_CTL_ADD, socket.Get(), &event) != 0) return LastError();
    poller = std::move(made);
    connection = std::move(socket);
    return 0;
  }

  std::uint32_t WantedInterestLocked() const {
    return (inputWatched ? EPOLLIN : 0u) | (outputWatched ? EPOLLOUT : 0u);
  }
  // Brings the poller up to what is wanted; a failure shows as a wake-up too many or too few
  // for input, which the owner's reading rules cover, and is not reported.
  void UpdateInterestLocked() {
    const std::uint32_t wanted = WantedInterestLocked();
    if (wanted == interest || !poller) return;
    epoll_event event{};
    event.events = wanted;
    event.data.fd = connection.Get();
    if (::epoll_ctl(poller.Get(), EPOLL_CTL_MOD, connection.Get(), &event) == 0) interest = wanted;
  }

  ssize_t SendWhole() {
    return RetryOnEintr([&] {
      return ::send(connection.Get(), outgoing.data(), outgoing.size(),
                    MSG_NOSIGNAL | MSG_DONTWAIT);
    });
  }

  void StartSending() {
    sendDone = false;
    sendError = 0;
    sendPending = true;
    TrySend();
  }

  // One attempt; `sendPending` stays set when the socket has no room yet.
  void TrySend() {
    const std::size_t size = whole ? outgoing.size() : pieces.Size();
    const ssize_t sent = whole ? SendWhole() : SendPieces(connection.Get(), pieces);
    if (sent < 0) {
      const std::uint32_t error = LastError();
      if (error == EAGAIN || error == EWOULDBLOCK) return;
      sendError = error;
    } else if (static_cast<std::size_t>(sent) != size) {
      sendError = kShortWriteCode;
    } else {
      sendDone = true;
    }
    sendPending = false;
  }

  // Drops a packet that was announced and never received, so that the next one shows.
  void DropAnnounced(Announcement& what) {
    if (!std::exchange(what.announced, false)) return;
    RetryOnEintr([&] { return ::recv(connection.Get(), nullptr, 0, MSG_DONTWAIT); });
  }

  // Announces the next packet to `what`: its length and header, without taking it.
  void PeekPacket(Announcement& what, TransportEvents& events, std::size_t maxPacket) {
    const ssize_t length = RetryOnEintr([&] {
      return ::recv(connection.Get(), what.head, sizeof(what.head),
                    MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
    });
    if (length < 0) {
      const std::uint32_t error = LastError();
      if (error == EAGAIN || error == EWOULDBLOCK) return;
      events.failure = ETransportFailure::Probe;
      events.code = error;
      return;
    }
    if (length == 0) {
      // The peer has closed its end. (A zero-length packet reads the same; no end of
      // ours sends one, and a peer that does is treated as gone.)
      events.failure = ETransportFailure::Probe;
      events.code = EPIPE;
      return;
    }
    const auto size = static_cast<std::size_t>(length);
    if (size > maxPacket) {
      events.failure = ETransportFailure::Read;
      events.code = kTooLargeCode;
      return;
    }
    what.packetLength = size;
    what.headLength = std::min(size, sizeof(what.head));
    what.announced = true;
    events.received = true;
  }

  // Receives the packet announced to `what`: `headLength` bytes into its `head` again, then
  // `parts`; what does not fit is dropped (a datagram socket truncates). Returns the bytes
  // received.
  std::uint32_t Receive(Announcement& what, iovec* parts, std::size_t count, std::size_t& got) {
    what.announced = false;
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    const ssize_t result =
        RetryOnEintr([&] { return ::recvmsg(connection.Get(), &message, MSG_DONTWAIT); });
    if (result < 0) return LastError();
    got = static_cast<std::size_t>(result);
    return 0;
  }
};

PipeTransport::PipeTransport() : m_impl(std::make_unique<Impl>()) {
  m_impl->wake.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!m_impl->wake) m_impl->wakeError = LastError();
  m_impl->readerWake.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!m_impl->readerWake && m_impl->wakeError == 0) m_impl->wakeError = LastError();
}

PipeTransport::~PipeTransport() { Disconnect(); }

std::uint32_t PipeTransport::Listen(std::wstring_view name) {
  Impl& impl = *m_impl;
  if (impl.wakeError != 0) return impl.wakeError;
  std::string folder;
  if (const std::uint32_t error = ServerFolder(folder)) return error;
  EndpointPath path;
  if (const std::uint32_t error = MakeEndpointPath(name, std::move(folder), path)) return error;

  UniqueFd lock;
  if (const std::uint32_t error = LockName(path.lock, lock)) return error;
  // The name is ours now: Disconnect() cleans up after whatever fails below.
  impl.lockFile = std::move(lock);
  impl.lockPath = path.lock;
  // Holding the lock, whatever socket sits at the path was left by a dead server.
  struct stat old {};
  if (::lstat(path.socket.c_str(), &old) == 0) {
    if (!S_ISSOCK(old.st_mode)) return EEXIST;
    if (::unlink(path.socket.c_str()) != 0) return LastError();
  }

  UniqueFd listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!listener) return LastError();
  const sockaddr_un address = SocketAddress(path.socket);
  if (::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return LastError();
  }
  struct stat created {};
  if (::lstat(path.socket.c_str(), &created) != 0) return LastError();
  impl.socketPath = path.socket;
  impl.socketDevice = created.st_dev;
  impl.socketInode = created.st_ino;
  if (::listen(listener.Get(), 4) != 0) return LastError();
  impl.listener = std::move(listener);
  return 0;
}

EAcceptResult PipeTransport::Accept(std::uint32_t expectedPid, base::Deadline deadline,
                                    std::uint32_t& error) {
  Impl& impl = *m_impl;
  for (;;) {
    pollfd fds[2] = {{impl.listener.Get(), POLLIN, 0}, {impl.wake.Get(), POLLIN, 0}};
    // The time-out is computed inside the call, so an interrupted wait waits only for the rest.
    if (RetryOnEintr([&] { return ::poll(fds, 2, base::PollTimeoutMs(deadline)); }) < 0) {
      error = LastError();
      return EAcceptResult::Failed;
    }
    if (fds[1].revents & POLLIN) {
      Impl::Drain(impl.wake);
      return EAcceptResult::Woken;
    }
    if (fds[0].revents & (POLLERR | POLLNVAL)) {
      error = EBADF;
      return EAcceptResult::Failed;
    }
    if (fds[0].revents & POLLIN) {
      UniqueFd client(RetryOnEintr([&] {
        return ::accept4(impl.listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      }));
      if (!client) {
        const std::uint32_t failure = LastError();
        // A client that gave up between poll and accept does not end the wait.
        if (failure != EAGAIN && failure != EWOULDBLOCK && failure != ECONNABORTED) {
          error = failure;
          return EAcceptResult::Failed;
        }
      } else if (PeerIsAcceptable(client.Get(), expectedPid)) {
        if (const std::uint32_t failure = impl.Connected(std::move(client))) {
          error = failure;
          return EAcceptResult::Failed;
        }
        // Nobody else gets in: later clients are refused at connect(). The name has served
        // its purpose; its files go now rather than when the connection ends.
        impl.listener.Reset();
        impl.RemoveFiles();
        return EAcceptResult::Connected;
      }
      // A refused client is closed here, before any byte was exchanged.
    }
    if (base::Passed(deadline)) return EAcceptResult::TimedOut;
  }
}

std::uint32_t PipeTransport::Connect(std::wstring_view name) {
  Impl& impl = *m_impl;
  if (impl.wakeError != 0) return impl.wakeError;
  EndpointPath path;
  if (const std::uint32_t error = MakeEndpointPath(name, ClientFolder(), path)) return error;
  if (const std::uint32_t error = CheckPrivateFolder(path.folder, false)) return error;
  UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) return LastError();
  const sockaddr_un address = SocketAddress(path.socket);
  // On a local socket connect() completes at once or fails (EAGAIN: the server's backlog is
  // full); it is never in progress.
  if (RetryOnEintr([&] {
        return ::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address),
                         sizeof(address));
      }) != 0) {
    return LastError();
  }
  if (!PeerIsAcceptable(socket.Get(), 0)) return EACCES;
  return impl.Connected(std::move(socket));
}

void PipeTransport::Send(std::string_view packet) {
  Impl& impl = *m_impl;
  impl.outgoing.assign(packet.data(), packet.size());
  impl.whole = true;
  impl.StartSending();
}

void PipeTransport::Send(const PacketPieces& packet) {
  Impl& impl = *m_impl;
  impl.pieces = packet;
  impl.whole = false;
  impl.StartSending();
}

bool PipeTransport::SendNow(const PacketPieces& packet) {
  const int fd = m_impl->connection.Get();
  if (fd < 0) return false;
  // A datagram socket takes a packet whole or not at all.
  return SendPieces(fd, packet) == static_cast<ssize_t>(packet.Size());
}

bool PipeTransport::Sending() const {
  const Impl& impl = *m_impl;
  return impl.sendPending || impl.sendDone || impl.sendError != 0;
}

TransportEvents PipeTransport::Wait(base::Deadline deadline, std::size_t readSize,
                                    std::size_t maxPacket, const std::function<bool()>& mayRead) {
  Impl& impl = *m_impl;
  TransportEvents events;
  impl.DropAnnounced(impl.driving);
  impl.driving.Clear();
  impl.packetRead = 0;
  impl.readSize = readSize;
  if (impl.sendError != 0) {
    events.failure = ETransportFailure::Write;
    events.code = std::exchange(impl.sendError, 0);
    return events;
  }
  if (!impl.connection) {
    events.failure = ETransportFailure::Probe;
    events.code = ENOTCONN;
    return events;
  }
  // A packet that already went out is reported without sleeping, together with whatever
  // else is ready now.
  const bool reportSent = std::exchange(impl.sendDone, false);
  events.sent = reportSent;
  {
    const std::lock_guard<std::mutex> lock(impl.interestMutex);
    impl.outputWatched = impl.sendPending;
    impl.UpdateInterestLocked();
  }

  epoll_event ready[2];
  // The time-out is computed inside the call, so an interrupted wait waits only for the rest.
  const int count = RetryOnEintr([&] {
    return ::epoll_wait(impl.poller.Get(), ready, 2,
                        reportSent ? 0 : base::PollTimeoutMs(deadline));
  });
  if (count < 0) {
    events.failure = ETransportFailure::Probe;
    events.code = LastError();
    return events;
  }
  std::uint32_t connection = 0;
  for (int i = 0; i < count; ++i) {
    if (ready[i].data.fd == impl.wake.Get()) {
      Impl::Drain(impl.wake);
    } else {
      connection = ready[i].events;
    }
  }
  // Data is read before a hang-up is believed: what the peer sent before leaving counts.
  if (connection & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
    if (!mayRead || mayRead()) {
      impl.PeekPacket(impl.driving, events, maxPacket);
    } else if (connection & (EPOLLHUP | EPOLLERR)) {
      // The direct reader takes what is left and the end; a write now would only report
      // the end less exactly.
      events.deferred = true;
      return events;
    }
  }
  // Of two failures the read's is kept, as it usually names the cause (the peer has gone).
  if (impl.sendPending && (connection & (EPOLLOUT | EPOLLHUP | EPOLLERR))) {
    impl.TrySend();
    const std::uint32_t sendError = std::exchange(impl.sendError, 0);
    if (sendError != 0 && events.failure == ETransportFailure::None) {
      events.failure = ETransportFailure::Write;
      events.code = sendError;
    }
    if (std::exchange(impl.sendDone, false)) events.sent = true;
  }
  return events;
}

std::size_t PipeTransport::PacketLength(EReader reader) const {
  return reader == EReader::Direct ? m_impl->direct.packetLength : m_impl->driving.packetLength;
}

std::string_view PipeTransport::PacketHead(EReader reader) const {
  const Announcement& what = reader == EReader::Direct ? m_impl->direct : m_impl->driving;
  return std::string_view(what.head, what.headLength);
}

std::uint32_t PipeTransport::TakePacket(char* payload, std::size_t payloadLength, EReader reader) {
  Impl& impl = *m_impl;
  Announcement& what = impl.Of(reader);
  if (!what.announced) return EINVAL;
  // The header lands where it was peeked to; the payload in the caller's message.
  iovec parts[2] = {{what.head, what.headLength}, {payload, payloadLength}};
  std::size_t got = 0;
  if (const std::uint32_t error = impl.Receive(what, parts, payloadLength > 0 ? 2 : 1, got)) {
    return error;
  }
  return got == what.headLength + payloadLength ? 0 : kInvalidDataCode;
}

std::string_view PipeTransport::Packet() {
  Impl& impl = *m_impl;
  if (impl.driving.announced) {
    const std::size_t size = std::max(impl.driving.packetLength, impl.readSize);
    if (impl.packet.size() < size) impl.packet.resize(size);
    iovec part = {impl.packet.data(), impl.driving.packetLength};
    std::size_t got = 0;
    if (impl.Receive(impl.driving, &part, 1, got) == 0) impl.packetRead = got;
  }
  return std::string_view(impl.packet.data(), impl.packetRead);
}

bool PipeTransport::SupportsDirectReading() { return true; }

void PipeTransport::WatchInput(bool watch) {
  Impl& impl = *m_impl;
  const std::lock_guard<std::mutex> lock(impl.interestMutex);
  impl.inputWatched = watch;
  impl.UpdateInterestLocked();
}

TransportEvents PipeTransport::WaitToRead(base::Deadline deadline, std::size_t maxPacket) {
  Impl& impl = *m_impl;
  TransportEvents events;
  impl.DropAnnounced(impl.direct);
  impl.direct.Clear();
  if (!impl.connection) {
    events.failure = ETransportFailure::Probe;
    events.code = ENOTCONN;
    return events;
  }
  pollfd fds[2] = {{impl.connection.Get(), POLLIN, 0}, {impl.readerWake.Get(), POLLIN, 0}};
  if (RetryOnEintr([&] { return ::poll(fds, 2, base::PollTimeoutMs(deadline)); }) < 0) {
    events.failure = ETransportFailure::Probe;
    events.code = LastError();
    return events;
  }
  if (fds[1].revents & POLLIN) Impl::Drain(impl.readerWake);
  if (fds[0].revents & POLLNVAL) {
    events.failure = ETransportFailure::Probe;
    events.code = EBADF;
  } else if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
    impl.PeekPacket(impl.direct, events, maxPacket);
  }
  return events;
}

void PipeTransport::WakeReader() noexcept {
  if (m_impl->readerWake) {
    RetryOnEintr([&] { return ::eventfd_write(m_impl->readerWake.Get(), 1); });
  }
}

void PipeTransport::Disconnect() {
  Impl& impl = *m_impl;
  impl.driving.announced = false;
  impl.direct.announced = false;
  {
    const std::lock_guard<std::mutex> lock(impl.interestMutex);
    impl.poller.Reset();
    impl.interest = 0;
    impl.inputWatched = true;
    impl.outputWatched = false;
  }
  impl.connection.Reset();
  impl.listener.Reset();
  impl.sendPending = false;
  impl.sendDone = false;
  impl.RemoveFiles();
}

void PipeTransport::Wake() noexcept {
  if (m_impl->wake) {
    // Only fails when the counter is near overflow, when a wake-up is pending anyway.
    RetryOnEintr([&] { return ::eventfd_write(m_impl->wake.Get(), 1); });
  }
}

std::wstring EndpointFolder() {
  std::string folder;
  ServerFolder(folder);
  return Utf8ToUtf16(folder);
}

void SetTempFolderRootForTesting(std::string root) { TempFolders::Get().SetRoot(std::move(root)); }

}  // namespace Pendrel::detail
