// CServer: `pendrel serve` itself: listeners, connections, the worker threads that run
// exchanges, the mounted pools and the control thread that answers signals.
//
// The network side (Network.cpp) reads requests on I/O threads with Boost.Beast and hands
// each finished request to Handle on a worker thread, which writes the answer when the
// socket takes it at once; the rest of a larger answer is written from the I/O thread. Routing
// happens once the header is read (Route), so an unknown mount or a body over the limit is answered
// before the body is read.
//
// Control: Run blocks on the calling thread until SIGTERM or SIGINT, serving SIGHUP (read
// the configuration again, start the new pools, drain the old) and closing idle sessions
// meanwhile. Stopping closes the listeners and the idle connections, waits up to the drain
// limit for requests in flight, stops every pool and returns 0.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "tools/server/Metrics.h"
#include "tools/server/Mount.h"
#include "tools/server/Reply.h"
#include "tools/server/ServeOptions.h"

namespace PendrelServer {

class CNetwork;  // HttpConnection.cpp

// Where a request goes, decided from its method and target once its header is read.
struct CRouted {
  enum class EKind { Mount, Health, Metrics, Reject };
  EKind Kind = EKind::Reject;
  std::shared_ptr<CMount> Mount;           // Kind Mount
  std::string Path;                        // Kind Mount: the percent-encoded path after the prefix
  std::string Query;                       // Kind Mount: without "?"
  std::string Label;                       // the mount prefix for metrics; "" for none
  std::uint64_t MaxBody = 0;               // the body limit for this request
  std::chrono::milliseconds QueueWait{0};  // Kind Mount: the longest wait for a worker
  CReply Rejection;                        // Kind Reject: the answer
};

// One line of the access log.
struct CLogEntry {
  std::string Method;
  std::string Target;
  std::string Label;
  unsigned Status = 0;
  std::uint64_t BytesIn = 0;
  std::uint64_t BytesOut = 0;
  double Seconds = 0;
  std::uint32_t HandlerPid = 0;
  std::string RequestId;
};

class CServer {
 public:
  CServer(CServeCommandLine commandLine, CServeSettings settings);
  ~CServer();
  CServer(const CServer&) = delete;
  CServer& operator=(const CServer&) = delete;

  // Takes over SIGTERM, SIGINT and SIGHUP (served once Run runs), then binds every listen
  // address and prints "pendrel serve: listening on ADDR:PORT" for each on stderr. False,
  // with `error`, when an address cannot be used.
  bool Listen(std::string& error);
  // Serves until SIGTERM or SIGINT; returns the exit status (0). The main thread.
  int Run();

  // The network side's calls. Route: I/O threads, does not block.
  CRouted Route(std::string_view method, std::string_view target);
  // Runs one request to its answer. Blocks; worker threads only.
  // `parts` come without Path and Query: the route has them.
  CReply Handle(CRouted&& routed, CHttpRequestParts&& parts);
  // The answer to GET /_health or /_metrics. Does not block.
  CReply Inline(const CRouted& routed);
  // A request is over (answered, or its connection lost): access log and metrics.
  void Finished(const CLogEntry& entry);
  // A request id: 16 hexadecimal digits, unique for this process with high likelihood.
  std::string MakeRequestId();

 private:
  struct CTable {
    std::vector<std::shared_ptr<CMount>> Mounts;  // longest prefix first
    std::uint64_t MaxBody = 0;
  };
  std::shared_ptr<CTable> MakeTable(const CServeSettings& settings);
  std::shared_ptr<CTable> Table();
  void Reload();
  void CloseIdleSessions();
  void Wake();

  const CServeCommandLine m_commandLine;
  CServeSettings m_settings;  // the control thread's
  CMetrics m_metrics;
  std::mutex m_tableLock;
  std::shared_ptr<CTable> m_table;  // under m_tableLock

  std::mutex m_controlLock;
  std::condition_variable m_controlWake;
  bool m_stopAsked = false;        // under m_controlLock
  bool m_reloadAsked = false;      // under m_controlLock
  bool m_sessionsChanged = false;  // under m_controlLock

  std::mutex m_logLock;  // one access-log line at a time
  std::unique_ptr<CNetwork> m_network;
  friend class CNetwork;
};

}  // namespace PendrelServer
