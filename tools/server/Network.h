// CNetwork: the HTTP side of `pendrel serve` (Boost.Beast on Boost.Asio): one listener per
// address, one connection object per accepted socket (owning its socket, buffer and
// parser), the I/O threads (each with an I/O context of its own; connections are spread over
// them in turn), the worker threads that run exchanges, and the signals.
//
// Every network operation has a time limit: an idle keep-alive connection 75 s, a request's
// header 10 s, each step of its body 30 s, each step of its answer 30 s. A declared length
// over the body limit is answered with 413 before anything of the body is read (also under
// "Expect: 100-continue"); a body of declared length is then read straight into the request,
// growing by what arrives; a chunked body is read by the parser, which stops it at the limit.
// An idle connection holds no thread. Finished requests go to a bounded set of worker
// threads; the I/O threads never block on a handler.
//
// Threads: Listen and Start from the control thread before anything else; StopAccepting,
// WaitIdle and Stop from the control thread; the rest is internal.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace PendrelServer {

class CServer;

class CNetwork {
 public:
  CNetwork(CServer& server, std::uint32_t workers);
  // Stops the I/O threads and joins every thread (see Stop).
  ~CNetwork();
  CNetwork(const CNetwork&) = delete;
  CNetwork& operator=(const CNetwork&) = delete;

  // Binds and listens on every "ADDR:PORT" ("[v6]:PORT"), printing
  // "pendrel serve: listening on ADDR:PORT" on stderr for each. False with `error` if one
  // cannot be used.
  bool Listen(const std::vector<std::string>& addresses, std::string& error);
  // Calls `onSignal` (on an I/O thread) for every SIGTERM, SIGINT and SIGHUP from now on.
  void HandleSignals(std::function<void(int)> onSignal);
  // Starts the I/O threads.
  void Start();
  // Closes the listeners and the connections waiting for a request; connections answering
  // close once their answer is written.
  void StopAccepting();
  // Waits until no request is in flight, or `deadline`; true when none is.
  bool WaitIdle(std::chrono::steady_clock::time_point deadline);
  // Stops the I/O threads and joins them; with `joinWorkers`, waits for the worker threads.
  void Stop(bool joinWorkers);

  struct Impl;

 private:
  std::unique_ptr<Impl> m_impl;
};

}  // namespace PendrelServer
