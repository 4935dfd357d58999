#include "tools/server/Metrics.h"

#include <cstdio>  // std::snprintf

namespace PendrelServer {
namespace {

// A label value as the exposition format quotes it.
std::string Label(const std::string& value) {
  std::string out = "\"";
  for (const char c : value) {
    if (c == '\\' || c == '"') out.push_back('\\');
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out.push_back(c);
  }
  return out + "\"";
}

std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.9g", value);
  return text;
}

void Header(std::string& page, const char* name, const char* type, const char* help) {
  page += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

}  // namespace

void CMetrics::Record(const std::string& mount, unsigned status, double seconds,
                      std::uint64_t bytesIn, std::uint64_t bytesOut) {
  std::lock_guard<std::mutex> hold(m_lock);
  ++m_requests[{mount, status}];
  CLatency& latency = m_latency[mount];
  std::size_t bucket = 0;
  while (bucket < kBuckets.size() && seconds > kBuckets[bucket]) ++bucket;
  if (bucket < kBuckets.size()) ++latency.Counts[bucket];
  ++latency.Count;
  latency.Sum += seconds;
  m_bytesIn += bytesIn;
  m_bytesOut += bytesOut;
}

std::string CMetrics::Page(
    const std::vector<std::pair<std::string, CTolvane::CHandlerPoolStats>>& pools) {
  std::string page;
  {
    std::lock_guard<std::mutex> hold(m_lock);
    Header(page, "pendrel_http_requests_total", "counter",
           "HTTP requests answered, by mount and status.");
    for (const auto& [key, count] : m_requests) {
      page += "pendrel_http_requests_total{mount=" + Label(key.first) + ",status=\"" +
              std::to_string(key.second) + "\"} " + std::to_string(count) + "\n";
    }
    Header(page, "pendrel_http_request_duration_seconds", "histogram",
           "Time from a request's header to its answer's last byte.");
    for (const auto& [mount, latency] : m_latency) {
      std::uint64_t cumulative = 0;
      for (std::size_t i = 0; i < kBuckets.size(); ++i) {
        cumulative += latency.Counts[i];
        page += "pendrel_http_request_duration_seconds_bucket{mount=" + Label(mount) + ",le=\"" +
                Number(kBuckets[i]) + "\"} " + std::to_string(cumulative) + "\n";
      }
      page += "pendrel_http_request_duration_seconds_bucket{mount=" + Label(mount) +
              ",le=\"+Inf\"} " + std::to_string(latency.Count) + "\n";
      page += "pendrel_http_request_duration_seconds_sum{mount=" + Label(mount) + "} " +
              Number(latency.Sum) + "\n";
      page += "pendrel_http_request_duration_seconds_count{mount=" + Label(mount) + "} " +
              std::to_string(latency.Count) + "\n";
    }
    Header(page, "pendrel_http_received_bytes_total", "counter", "Bytes of requests read.");
    page += "pendrel_http_received_bytes_total " + std::to_string(m_bytesIn) + "\n";
    Header(page, "pendrel_http_sent_bytes_total", "counter", "Bytes of answers written.");
    page += "pendrel_http_sent_bytes_total " + std::to_string(m_bytesOut) + "\n";
  }
  struct CPoolFigure {
    const char* Name;
    const char* Type;
    const char* Help;
    std::uint64_t (*Read)(const CTolvane::CHandlerPoolStats&);
  };
  static const CPoolFigure kFigures[] = {
      {"pendrel_pool_idle_handlers", "gauge", "Started handlers waiting for a request.",
       [](const CTolvane::CHandlerPoolStats& s) -> std::uint64_t { return s.Idle; }},
      {"pendrel_pool_busy_handlers", "gauge", "Handlers serving a request.",
       [](const CTolvane::CHandlerPoolStats& s) -> std::uint64_t { return s.Busy; }},
      {"pendrel_pool_session_handlers", "gauge", "Handlers held by open sessions.",
       [](const CTolvane::CHandlerPoolStats& s) -> std::uint64_t { return s.Sessions; }},
      {"pendrel_pool_queue_length", "gauge", "Requests waiting for a free handler.",
       [](const CTolvane::CHandlerPoolStats& s) -> std::uint64_t { return s.Waiting; }},
      {"pendrel_pool_handler_starts_total", "counter", "Handlers started.",
       [](const CTolvane::CHandlerPoolStats& s) -> std::uint64_t { return s.Started; }},
      {"pendrel_pool_handler_start_failures_total", "counter", "Handler starts that failed.",
       [](const CTolvane::CHandlerPoolStats& s) -> std::uint64_t { return s.StartFailures; }},
      {"pendrel_pool_handler_retirements_total", "counter",
       "Handlers retired (failed, worn out, idle or session over).",
       [](const CTolvane::CHandlerPoolStats& s) -> std::uint64_t { return s.Retired; }},
      {"pendrel_pool_handler_kills_total", "counter",
       "Retired handlers killed after their grace period.",
       [](const CTolvane::CHandlerPoolStats& s) -> std::uint64_t { return s.Killed; }},
  };
  for (const CPoolFigure& figure : kFigures) {
    Header(page, figure.Name, figure.Type, figure.Help);
    for (const auto& [mount, stats] : pools) {
      page += std::string(figure.Name) + "{mount=" + Label(mount) + "} " +
              std::to_string(figure.Read(stats)) + "\n";
    }
  }
  return page;
}

}  // namespace PendrelServer
