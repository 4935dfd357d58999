#include "tools/server/Network.h"

#include <algorithm>  // std::min
#include <atomic>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <charconv>  // std::from_chars
#include <condition_variable>
#include <csignal>  // SIGTERM, SIGINT, SIGHUP
#include <cstdio>   // std::fprintf
#include <mutex>
#include <new>  // std::bad_alloc
#include <optional>
#include <thread>
#include <unordered_map>
#include <utility>  // std::pair

#include "tools/server/Server.h"

namespace PendrelServer {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;

constexpr auto kKeepAliveIdle = std::chrono::seconds(75);
constexpr auto kHeaderTime = std::chrono::seconds(10);
constexpr auto kBodyStepTime = std::chrono::seconds(30);
constexpr auto kWriteStepTime = std::chrono::seconds(30);
// After an answer that leaves a body unread, the rest is read and dropped for this long
// before the socket closes, so that the client sees the answer rather than a reset.
constexpr auto kLingerTime = std::chrono::seconds(3);
constexpr std::uint32_t kHeaderLimit = 64 * 1024;
constexpr std::size_t kFirstRead = 4096;
constexpr std::size_t kBodyReadStep = 1024 * 1024;
// Requests read and waiting for a worker thread, at most; more are answered 503 at once.
constexpr std::size_t kMaxWaitingForWorker = 4096;

class CConnection;

}  // namespace

struct CNetwork::Impl {
  // Declared first so that it outlives the I/O context and the workers, whose pending work
  // holds connections that unregister here when destroyed.
  std::mutex Lock;
  std::condition_variable Idle;
  std::size_t InFlight = 0;  // under Lock
  // Set under Lock (with the connections' list) and read without it, twice a request.
  std::atomic<bool> Draining{false};
  std::atomic<std::size_t> WaitingForWorker{0};
  std::unordered_map<CConnection*, std::weak_ptr<CConnection>> Connections;  // under Lock

  CServer& Server;
  // One I/O context per I/O thread, each run by that thread alone: a completion made on an
  // I/O thread (a cancelled time limit, a read that starts the next) stays on that thread
  // instead of waking another. Connections are spread over them in turn.
  struct CIoThread {
    net::io_context Io{1};
    net::executor_work_guard<net::io_context::executor_type> Work{net::make_work_guard(Io)};
    std::thread Thread;
  };
  std::vector<std::unique_ptr<CIoThread>> IoThreads;
  std::size_t NextIo = 0;  // touched on the first I/O thread only, by Accept
  net::io_context& Io;     // the first: acceptors and signals
  net::thread_pool Workers;
  net::signal_set Signals;
  std::function<void(int)> OnSignal;
  std::vector<std::unique_ptr<tcp::acceptor>> Acceptors;  // touched on the first I/O thread

  Impl(CServer& server, std::uint32_t workers)
      : Server(server),
        IoThreads(MakeIoThreads()),
        Io(IoThreads.front()->Io),
        Workers(workers),
        Signals(Io) {}

  static std::vector<std::unique_ptr<CIoThread>> MakeIoThreads() {
    std::vector<std::unique_ptr<CIoThread>> threads(IoThreadCount());
    for (auto& thread : threads) thread = std::make_unique<CIoThread>();
    return threads;
  }
  static unsigned IoThreadCount() {
    const unsigned cores = std::thread::hardware_concurrency();
    return cores == 0 ? 1 : (cores > 4 ? 4 : cores);
  }

  void Accept(tcp::acceptor& acceptor);
  void WaitSignal() {
    Signals.async_wait([this](const beast::error_code& ec, int signal) {
      if (ec) return;
      if (OnSignal) OnSignal(signal);
      WaitSignal();
    });
  }
  void RequestBegan() {
    std::lock_guard<std::mutex> hold(Lock);
    ++InFlight;
  }
  void RequestEnded() {
    std::lock_guard<std::mutex> hold(Lock);
    if (--InFlight == 0) Idle.notify_all();
  }
  bool IsDraining() const { return Draining.load(std::memory_order_acquire); }
};

namespace {

// One accepted connection. Its handlers run on the one thread of its I/O context.
class CConnection : public std::enable_shared_from_this<CConnection> {
 public:
  CConnection(tcp::socket&& socket, CNetwork::Impl& network)
      : m_stream(std::move(socket)), m_network(network), m_server(network.Server) {}

  ~CConnection() {
    std::lock_guard<std::mutex> hold(m_network.Lock);
    m_network.Connections.erase(this);
  }

  void Start() {
    {
      std::lock_guard<std::mutex> hold(m_network.Lock);
      m_network.Connections.emplace(this, weak_from_this());
    }
    net::dispatch(m_stream.get_executor(), [self = shared_from_this()] { self->WaitForRequest(); });
  }

  // Any thread: ends the connection if it waits for a request; else its answer closes it.
  void Drain() {
    net::post(m_stream.get_executor(), [self = shared_from_this()] {
      const std::lock_guard<std::mutex> hold(self->m_workerAnswer);
      self->m_draining = true;
      if (!self->m_inRequest && !self->m_closed) self->m_stream.cancel();
    });
  }

 private:
  void WaitForRequest() {
    if (m_draining || m_network.IsDraining()) return Close();
    if (m_buffer.size() > 0) return ReadHeader();
    m_stream.expires_after(kKeepAliveIdle);
    m_stream.async_read_some(
        m_buffer.prepare(kFirstRead),
        [self = shared_from_this()](const beast::error_code& ec, std::size_t bytes) {
          if (ec) return self->Close();
          self->m_buffer.commit(bytes);
          self->ReadHeader();
        });
  }

  void ReadHeader() {
    m_parser.emplace();
    m_bodyRead = false;
    m_parser->header_limit(kHeaderLimit);
    m_parser->body_limit(boost::none);  // set once the route is known
    m_stream.expires_after(kHeaderTime);
    http::async_read_header(
        m_stream, m_buffer, *m_parser,
        [self = shared_from_this()](const beast::error_code& ec, std::size_t bytes) {
          self->OnHeader(ec, bytes);
        });
  }

  void OnHeader(const beast::error_code& ec, std::size_t bytes) {
    if (ec == http::error::header_limit) {
      Begin(bytes);
      return Answer(Problem(431, "the request's header is over 64 KiB"), true);
    }
    if (ec == http::error::end_of_stream || ec == beast::error::timeout ||
        ec == net::error::operation_aborted || ec == net::error::connection_reset ||
        ec == net::error::eof) {
      return Close();
    }
    if (ec) {
      Begin(bytes);
      return Answer(Problem(400, "the request is not well-formed HTTP: " + ec.message()), true);
    }
    Begin(bytes);
    const auto& request = m_parser->get();
    m_method = std::string(request.method_string());
    m_target = std::string(request.target());
    m_version = request.version();
    m_keepAlive = request.keep_alive();
    if (const auto id = request.find("X-Request-Id");
        id != request.end() && UsableId(id->value())) {
      m_requestId = std::string(id->value());
    }
    m_routed = m_server.Route(m_method, m_target);
    m_label = m_routed.Label;
    const bool bodyFollows = !m_parser->is_done();
    switch (m_routed.Kind) {
      case CRouted::EKind::Reject:
        return Answer(std::move(m_routed.Rejection), bodyFollows);
      case CRouted::EKind::Health:
      case CRouted::EKind::Metrics:
        return Answer(m_server.Inline(m_routed), bodyFollows);
      case CRouted::EKind::Mount:
        break;
    }
    if (const auto length = m_parser->content_length(); length && *length > m_routed.MaxBody) {
      return Answer(
          Problem(413, "the body of " + std::to_string(*length) + " bytes is over the limit of " +
                           std::to_string(m_routed.MaxBody) + " bytes"),
          true);
    }
    m_parser->body_limit(m_routed.MaxBody);
    const auto expect = request.find(http::field::expect);
    if (bodyFollows && expect != request.end() && beast::iequals(expect->value(), "100-continue")) {
      auto goOn =
          std::make_shared<http::response<http::empty_body>>(http::status::continue_, m_version);
      m_stream.expires_after(kWriteStepTime);
      http::async_write(
          m_stream, *goOn,
          [self = shared_from_this(), goOn](const beast::error_code& ec, std::size_t) {
            if (ec) return self->Close();
            self->ReadBody();
          });
      return;
    }
    ReadBody();
  }

  void ReadBody() {
    if (m_parser->is_done()) return Dispatch();
    if (const auto length = m_parser->content_length()) return StartBodyOfLength(*length);
    m_stream.expires_after(kBodyStepTime);
    http::async_read_some(
        m_stream, m_buffer, *m_parser,
        [self = shared_from_this()](const beast::error_code& ec, std::size_t bytes) {
          self->m_bytesIn += bytes;
          if (ec == http::error::body_limit) {
            return self->Answer(Problem(413, "the body is over the limit of " +
                                                 std::to_string(self->m_routed.MaxBody) + " bytes"),
                                true);
          }
          if (ec == beast::error::timeout) {
            self->m_status = 408;
            return self->Close();
          }
          if (ec == http::error::end_of_stream || ec == net::error::eof ||
              ec == net::error::operation_aborted || ec == net::error::connection_reset ||
              ec == http::error::partial_message) {
            return self->Close();
          }
          if (ec) {
            return self->Answer(
                Problem(400, "the request's body is not well-formed: " + ec.message()), true);
          }
          self->ReadBody();
        });
  }

  // A body of known length (within the limit, checked before) is read past the parser: what
  // came with the header is taken from the buffer, the rest is read from the socket straight
  // into the body, in steps of up to kBodyReadStep. The room for the whole body is reserved
  // at once (address space only); the body grows by what arrives, so that a length announced
  // and never sent costs no memory.
  void StartBodyOfLength(std::uint64_t length) {
    m_body.clear();
    try {
      m_body.reserve(static_cast<std::size_t>(length));
    } catch (const std::bad_alloc&) {
      CReply busy =
          Problem(503, "there is no memory for a body of " + std::to_string(length) + " bytes now");
      busy.Fields.emplace_back("Retry-After", "1");
      return Answer(std::move(busy), true);
    }
    const std::size_t early = std::min<std::size_t>(m_buffer.size(), length);
    const auto* data = static_cast<const char*>(m_buffer.data().data());
    m_body.append(data, early);
    m_buffer.consume(early);
    m_bytesIn += early;
    m_bodyLength = static_cast<std::size_t>(length);
    ReadBodyOfLength();
  }

  void ReadBodyOfLength() {
    const std::size_t had = m_body.size();
    if (had == m_bodyLength) {
      m_bodyRead = true;
      return Dispatch();
    }
    m_body.resize(had + std::min(m_bodyLength - had, kBodyReadStep));
    m_stream.expires_after(kBodyStepTime);
    m_stream.async_read_some(
        net::buffer(m_body.data() + had, m_body.size() - had),
        [self = shared_from_this(), had](const beast::error_code& ec, std::size_t bytes) {
          self->m_body.resize(had + bytes);
          self->m_bytesIn += bytes;
          if (ec == beast::error::timeout) {
            self->m_status = 408;
            return self->Close();
          }
          if (ec) return self->Close();  // the client went away or reset the connection
          self->ReadBodyOfLength();
        });
  }

  void Dispatch() {
    m_stream.expires_never();
    http::request<http::string_body> request = m_parser->release();
    CHttpRequestParts parts;
    parts.Method = m_method;
    parts.ContentType = std::string(request[http::field::content_type]);
    parts.ContentDisposition = std::string(request[http::field::content_disposition]);
    parts.Body = m_bodyRead ? std::move(m_body) : std::move(request.body());
    // The worker threads' queue is bounded in length and, like the pool's, in waiting time.
    if (++m_network.WaitingForWorker > kMaxWaitingForWorker) {
      --m_network.WaitingForWorker;
      CReply busy = Problem(503, "too many requests are waiting for a worker thread");
      busy.Fields.emplace_back("Retry-After", "1");
      return Answer(std::move(busy), false);
    }
    net::post(m_network.Workers, [self = shared_from_this(), routed = std::move(m_routed),
                                  parts = std::move(parts), posted = Clock::now()]() mutable {
      --self->m_network.WaitingForWorker;
      CReply reply;
      try {
        if (Clock::now() - posted > routed.QueueWait) {
          reply = Problem(503, "no worker thread became free within " +
                                   std::to_string(routed.QueueWait.count() / 1000) + " s");
          reply.Fields.emplace_back("Retry-After", "1");
        } else {
          reply = self->m_server.Handle(std::move(routed), std::move(parts));
        }
      } catch (const std::exception& e) {
        reply = Problem(500, std::string("the server failed: ") + e.what());
      }
      self->AnswerFromWorker(std::move(reply));
    });
  }

  // On the worker thread that made the answer, while the connection waits for it: nothing of
  // the connection is pending on its I/O thread but what Drain posts, which m_workerAnswer keeps
  // out meanwhile. An answer that the socket takes whole at once is written here and the wait
  // for the next request starts here: no hand-over back to an I/O thread on the path of
  // every request. Any other answer (one that closes the connection, or more than the socket
  // takes now) is written from the I/O thread.
  void AnswerFromWorker(CReply reply) {
    std::unique_lock<std::mutex> hold(m_workerAnswer);
    const auto [keepAlive, unreadBody] = Prepare(std::move(reply), false);
    if (keepAlive && !unreadBody && WriteNow()) {
      m_serializer.reset();
      m_response.reset();
      End();
      WaitForRequest();  // the last use of the connection on this thread
      return;
    }
    hold.unlock();
    net::post(m_stream.get_executor(),
              [self = shared_from_this(), keepAlive = keepAlive, unreadBody = unreadBody] {
                self->WriteSome(keepAlive, unreadBody);
              });
  }

  // Writes as much of the prepared answer as the socket takes without waiting; true when it
  // took all of it. A failed write leaves the rest to the I/O thread, which sees the failure again.
  bool WriteNow() {
    beast::error_code ec;
    if (!m_stream.socket().non_blocking()) m_stream.socket().non_blocking(true, ec);
    while (!ec && !m_serializer->is_done()) {
      m_bytesOut += http::write_some(m_stream.socket(), *m_serializer, ec);
    }
    return !ec && m_serializer->is_done();
  }

  void Answer(CReply reply, bool close) {
    const auto [keepAlive, unreadBody] = Prepare(std::move(reply), close);
    WriteSome(keepAlive, unreadBody);
  }

  // Makes the HTTP answer of `reply` and its serializer; says whether the connection stays
  // open and whether a body is left unread.
  std::pair<bool, bool> Prepare(CReply reply, bool close) {
    if (m_draining || m_network.IsDraining()) close = true;
    auto response = std::make_shared<http::response<http::string_body>>();
    response->version(m_version);
    response->result(reply.Status);
    for (auto& [name, value] : reply.Fields) {
      // A line end in a field would start a field of the handler's making: left out.
      if (name.empty() || name.find_first_of("\r\n:\0", 0, 4) != std::string::npos ||
          value.find_first_of("\r\n\0", 0, 3) != std::string::npos) {
        continue;
      }
      response->insert(name, value);
    }
    response->set(http::field::server, "pendrel");
    response->set("X-Request-Id", RequestId());
    response->body() = std::move(reply.Body);
    response->keep_alive(m_keepAlive && !close);
    response->prepare_payload();
    if (m_method == "HEAD") response->body().clear();  // the length stays, the body goes
    m_status = reply.Status;
    m_pid = reply.HandlerPid;
    const bool keepAlive = response->keep_alive();
    const bool unreadBody = m_parser && !m_parser->is_done() && !m_bodyRead;
    m_response = std::move(response);
    m_serializer.emplace(*m_response);
    return {keepAlive, unreadBody};
  }

  // Writes the answer a step at a time, each step with its own time limit, so that a large
  // answer to a slow reader is not cut while it still moves.
  void WriteSome(bool keepAlive, bool unreadBody) {
    m_stream.expires_after(kWriteStepTime);
    http::async_write_some(m_stream, *m_serializer,
                           [self = shared_from_this(), keepAlive, unreadBody](
                               const beast::error_code& ec, std::size_t bytes) {
                             self->m_bytesOut += bytes;
                             if (!ec && !self->m_serializer->is_done()) {
                               return self->WriteSome(keepAlive, unreadBody);
                             }
                             self->m_serializer.reset();
                             self->m_response.reset();
                             self->End();
                             if (ec) return self->Close();
                             if (!keepAlive) return unreadBody ? self->Linger() : self->Close();
                             self->WaitForRequest();
                           });
  }

  // Sends FIN, then reads and drops what the client still sends, for a bounded time.
  void Linger() {
    beast::error_code ignored;
    m_stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
    m_lingerUntil = Clock::now() + kLingerTime;
    LingerRead();
  }
  void LingerRead() {
    m_stream.expires_at(m_lingerUntil);
    m_buffer.clear();
    m_stream.async_read_some(m_buffer.prepare(65536),
                             [self = shared_from_this()](const beast::error_code& ec, std::size_t) {
                               if (ec) return self->Close();
                               self->LingerRead();
                             });
  }

  void Begin(std::size_t headerBytes) {
    m_inRequest = true;
    m_started = Clock::now();
    m_bytesIn = headerBytes;
    m_bytesOut = 0;
    m_status = 0;
    m_pid = 0;
    m_method = "-";
    m_target = "-";
    m_label.clear();
    m_requestId.clear();  // the client's, from OnHeader, or one made by RequestId()
    m_network.RequestBegan();
  }

  void End() {
    if (!m_inRequest) return;
    m_inRequest = false;
    CLogEntry entry;
    entry.Method = m_method;
    entry.Target = m_target;
    entry.Label = m_label;
    entry.Status = m_status ? m_status : 499;  // 499: the client went away before its answer
    entry.BytesIn = m_bytesIn;
    entry.BytesOut = m_bytesOut;
    entry.Seconds = std::chrono::duration<double>(Clock::now() - m_started).count();
    entry.HandlerPid = m_pid;
    entry.RequestId = RequestId();
    m_server.Finished(entry);
    m_network.RequestEnded();
  }

  void Close() {
    End();
    if (m_closed) return;
    m_closed = true;
    beast::error_code ignored;
    m_stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
    m_stream.close();
  }

  // The request's id: the client's usable X-Request-Id, else one made once, when first needed.
  const std::string& RequestId() {
    if (m_requestId.empty()) m_requestId = m_server.MakeRequestId();
    return m_requestId;
  }

  // An X-Request-Id to pass on: 1 to 128 characters of letters, digits and "-._:".
  static bool UsableId(beast::string_view id) {
    if (id.empty() || id.size() > 128) return false;
    for (const char c : id) {
      const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                      c == '-' || c == '.' || c == '_' || c == ':';
      if (!ok) return false;
    }
    return true;
  }

  beast::tcp_stream m_stream;
  beast::flat_buffer m_buffer;
  std::optional<http::request_parser<http::string_body>> m_parser;
  // A body of known length, read past the parser (StartBodyOfLength); m_bodyRead once whole.
  std::string m_body;
  std::size_t m_bodyLength = 0;
  bool m_bodyRead = false;
  std::shared_ptr<http::response<http::string_body>> m_response;  // the answer being written
  std::optional<http::response_serializer<http::string_body>> m_serializer;  // of m_response
  CNetwork::Impl& m_network;
  CServer& m_server;
  CRouted m_routed;
  // Held by the worker thread that writes an answer (AnswerFromWorker) and by Drain's step on
  // the I/O thread: the only two that can touch the connection at the same time.
  std::mutex m_workerAnswer;
  bool m_draining = false;
  bool m_closed = false;
  Clock::time_point m_lingerUntil;
  // The request in hand.
  bool m_inRequest = false;
  Clock::time_point m_started;
  std::string m_method;
  std::string m_target;
  std::string m_label;
  std::string m_requestId;
  unsigned m_version = 11;
  bool m_keepAlive = true;
  unsigned m_status = 0;
  std::uint32_t m_pid = 0;
  std::uint64_t m_bytesIn = 0;
  std::uint64_t m_bytesOut = 0;
};

// "127.0.0.1:8080", "[::1]:0", "localhost" not: addresses only.
bool ParseEndpoint(const std::string& text, tcp::endpoint& endpoint, std::string& error) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
    error = "the listen address \"" + text + "\" is not ADDR:PORT";
    return false;
  }
  std::string host = text.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  unsigned port = 0;
  const char* first = text.data() + colon + 1;
  const char* last = text.data() + text.size();
  auto [end, ec] = std::from_chars(first, last, port);
  if (ec != std::errc() || end != last || port > 65535) {
    error = "the listen address \"" + text + "\" has no port number from 0 to 65535";
    return false;
  }
  beast::error_code bad;
  const net::ip::address address = net::ip::make_address(host, bad);
  if (bad) {
    error = "the listen address \"" + text + "\" does not start with an IP address";
    return false;
  }
  endpoint = tcp::endpoint(address, static_cast<unsigned short>(port));
  return true;
}

std::string EndpointText(const tcp::endpoint& endpoint) {
  const std::string address = endpoint.address().to_string();
  return (endpoint.address().is_v6() ? "[" + address + "]" : address) + ":" +
         std::to_string(endpoint.port());
}

}  // namespace

void CNetwork::Impl::Accept(tcp::acceptor& acceptor) {
  net::io_context& connectionIo = IoThreads[NextIo]->Io;
  NextIo = (NextIo + 1) % IoThreads.size();
  acceptor.async_accept(
      connectionIo, [this, &acceptor](const beast::error_code& ec, tcp::socket socket) {
        if (ec == net::error::operation_aborted || !acceptor.is_open()) return;
        if (ec) {
          // Out of descriptors, say: try again shortly rather than spin.
          std::fprintf(stderr, "pendrel serve: accepting a connection failed: %s\n",
                       ec.message().c_str());
          auto timer = std::make_shared<net::steady_timer>(Io, std::chrono::milliseconds(100));
          timer->async_wait([this, &acceptor, timer](const beast::error_code&) {
            if (acceptor.is_open()) Accept(acceptor);
          });
          return;
        }
        beast::error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        std::make_shared<CConnection>(std::move(socket), *this)->Start();
        Accept(acceptor);
      });
}

CNetwork::CNetwork(CServer& server, std::uint32_t workers)
    : m_impl(std::make_unique<Impl>(server, workers)) {}

CNetwork::~CNetwork() { Stop(true); }

bool CNetwork::Listen(const std::vector<std::string>& addresses, std::string& error) {
  for (const std::string& text : addresses) {
    tcp::endpoint endpoint;
    if (!ParseEndpoint(text, endpoint, error)) return false;
    auto acceptor = std::make_unique<tcp::acceptor>(m_impl->Io);
    beast::error_code ec;
    acceptor->open(endpoint.protocol(), ec);
    if (!ec) acceptor->set_option(net::socket_base::reuse_address(true), ec);
    if (!ec) acceptor->bind(endpoint, ec);
    if (!ec) acceptor->listen(net::socket_base::max_listen_connections, ec);
    if (ec) {
      error = "cannot listen on " + text + ": " + ec.message();
      return false;
    }
    const tcp::endpoint bound = acceptor->local_endpoint(ec);
    std::fprintf(stderr, "pendrel serve: listening on %s\n", EndpointText(bound).c_str());
    m_impl->Acceptors.push_back(std::move(acceptor));
  }
  std::fflush(stderr);
  return true;
}

void CNetwork::HandleSignals(std::function<void(int)> onSignal) {
  m_impl->OnSignal = std::move(onSignal);
  m_impl->Signals.add(SIGTERM);
  m_impl->Signals.add(SIGINT);
  m_impl->Signals.add(SIGHUP);
  m_impl->WaitSignal();
}

void CNetwork::Start() {
  for (auto& acceptor : m_impl->Acceptors) m_impl->Accept(*acceptor);
  for (auto& thread : m_impl->IoThreads) {
    thread->Thread = std::thread([io = &thread->Io] { io->run(); });
  }
}

void CNetwork::StopAccepting() {
  net::post(m_impl->Io, [impl = m_impl.get()] {
    for (auto& acceptor : impl->Acceptors) {
      beast::error_code ignored;
      acceptor->close(ignored);
    }
  });
  std::vector<std::shared_ptr<CConnection>> connections;
  {
    std::lock_guard<std::mutex> hold(m_impl->Lock);
    m_impl->Draining.store(true, std::memory_order_release);
    for (auto& [pointer, weak] : m_impl->Connections) {
      if (auto connection = weak.lock()) connections.push_back(std::move(connection));
    }
  }
  for (auto& connection : connections) connection->Drain();
}

bool CNetwork::WaitIdle(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock<std::mutex> hold(m_impl->Lock);
  return m_impl->Idle.wait_until(hold, deadline, [&] { return m_impl->InFlight == 0; });
}

void CNetwork::Stop(bool joinWorkers) {
  m_impl->Signals.cancel();
  for (auto& thread : m_impl->IoThreads) {
    thread->Work.reset();
    thread->Io.stop();
  }
  for (auto& thread : m_impl->IoThreads) {
    if (thread->Thread.joinable()) thread->Thread.join();
  }
  if (joinWorkers) m_impl->Workers.join();
}

}  // namespace PendrelServer
