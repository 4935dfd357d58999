// The server's counters, written out in the Prometheus text format on GET /_metrics.
//
// Requests are counted by mount and HTTP status, timed in one latency histogram per mount,
// and their bytes added up. Pool figures (idle, busy, starts, failures, kills, waiters) are
// read from the pools when the page is written. Thread-safe: any thread may record while
// another writes the page.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "handler/CHandlerPool.h"

namespace PendrelServer {

class CMetrics {
 public:
  // Upper bounds of the latency histogram, in seconds.
  static constexpr std::array<double, 12> kBuckets = {0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025,
                                                      0.05,   0.1,   0.25,   0.5,   1,    2.5};

  // One finished request: its mount ("" for none), status, duration and bytes.
  void Record(const std::string& mount, unsigned status, double seconds, std::uint64_t bytesIn,
              std::uint64_t bytesOut);

  // The page: every counter, plus the pool figures given by mount prefix.
  std::string Page(const std::vector<std::pair<std::string, CTolvane::CHandlerPoolStats>>& pools);

 private:
  struct CLatency {
    std::array<std::uint64_t, kBuckets.size()> Counts{};  // not cumulative
    std::uint64_t Count = 0;
    double Sum = 0;
  };
  std::mutex m_lock;
  std::map<std::pair<std::string, unsigned>, std::uint64_t> m_requests;  // under m_lock
  std::map<std::string, CLatency> m_latency;                             // under m_lock
  std::uint64_t m_bytesIn = 0;                                           // under m_lock
  std::uint64_t m_bytesOut = 0;                                          // under m_lock
};

}  // namespace PendrelServer
