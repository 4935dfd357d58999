#include "tools/server/Server.h"

#include <algorithm>
#include <boost/url/parse.hpp>  // parse_origin_form
#include <chrono>
#include <csignal>  // SIGHUP
#include <cstdio>   // std::fwrite, stderr
#include <cstdlib>  // std::_Exit
#include <random>

#include "tools/server/Network.h"
#include "tools/server/Text.h"

namespace PendrelServer {
namespace {

using Clock = std::chrono::steady_clock;

// Whether `path` is under `prefix`: equal to it or continuing with "/".
bool UnderPrefix(std::string_view path, std::string_view prefix) {
  if (prefix == "/") return true;
  return path.substr(0, prefix.size()) == prefix &&
         (path.size() == prefix.size() || path[prefix.size()] == '/');
}

}  // namespace

CServer::CServer(CServeCommandLine commandLine, CServeSettings settings)
    : m_commandLine(std::move(commandLine)), m_settings(std::move(settings)) {
  m_table = MakeTable(m_settings);
  m_network = std::make_unique<CNetwork>(*this, m_settings.Workers);
}

CServer::~CServer() {
  // The network first: its workers may still hold mounts.
  m_network.reset();
}

std::shared_ptr<CServer::CTable> CServer::MakeTable(const CServeSettings& settings) {
  auto table = std::make_shared<CTable>();
  table->MaxBody = settings.MaxBody;
  for (const CMountSettings& mount : settings.Mounts) {
    table->Mounts.push_back(std::make_shared<CMount>(mount, [this] { Wake(); }));
  }
  std::stable_sort(table->Mounts.begin(), table->Mounts.end(), [](const auto& a, const auto& b) {
    return a->Prefix().size() > b->Prefix().size();
  });
  return table;
}

std::shared_ptr<CServer::CTable> CServer::Table() {
  std::lock_guard<std::mutex> hold(m_tableLock);
  return m_table;
}

bool CServer::Listen(std::string& error) {
  // Signals are taken over before the listening line is printed: a signal sent as soon as
  // the line appears is then served, not left to the default action.
  m_network->HandleSignals([this](int signal) {
    {
      std::lock_guard<std::mutex> hold(m_controlLock);
      (signal == SIGHUP ? m_reloadAsked : m_stopAsked) = true;
    }
    m_controlWake.notify_all();
  });
  return m_network->Listen(m_settings.Listen, error);
}

void CServer::Wake() {
  {
    std::lock_guard<std::mutex> hold(m_controlLock);
    m_sessionsChanged = true;
  }
  m_controlWake.notify_all();
}

int CServer::Run() {
  m_network->Start();
  for (;;) {
    std::optional<Clock::time_point> next;
    for (const auto& mount : Table()->Mounts) {
      const auto deadline = mount->NextSessionDeadline();
      if (deadline && (!next || *deadline < *next)) next = deadline;
    }
    bool reload = false;
    {
      std::unique_lock<std::mutex> hold(m_controlLock);
      auto asked = [&] { return m_stopAsked || m_reloadAsked || m_sessionsChanged; };
      if (next) {
        m_controlWake.wait_until(hold, *next, asked);
      } else {
        m_controlWake.wait(hold, asked);
      }
      if (m_stopAsked) break;
      reload = m_reloadAsked;
      m_reloadAsked = false;
      m_sessionsChanged = false;
    }
    if (reload) Reload();
    CloseIdleSessions();
  }

  std::fprintf(stderr, "pendrel serve: stopping: finishing the requests in flight\n");
  const auto deadline = Clock::now() + std::chrono::milliseconds(m_settings.DrainMs);
  m_network->StopAccepting();
  const bool drained = m_network->WaitIdle(deadline);
  const auto left = [&] {
    const auto rest = deadline - Clock::now();
    return rest.count() > 0
               ? static_cast<std::uint32_t>(
                     std::chrono::duration_cast<std::chrono::milliseconds>(rest).count())
               : 0u;
  };
  std::shared_ptr<CTable> table = Table();
  for (const auto& mount : table->Mounts) mount->Stop(left());
  if (!drained && !m_network->WaitIdle(Clock::now())) {
    // Exchanges still running past the drain limit: their handlers end with this process.
    std::fprintf(stderr,
                 "pendrel serve: the drain limit of %u ms is over with requests unfinished; "
                 "stopped\n",
                 static_cast<unsigned>(m_settings.DrainMs));
    std::fflush(stderr);
    std::_Exit(0);
  }
  m_network->Stop(true);
  std::fprintf(stderr, "pendrel serve: stopped\n");
  return 0;
}

void CServer::Reload() {
  CServeSettings settings;
  std::string error;
  bool unreadable = false;
  if (!LoadServeSettings(m_commandLine, settings, error, unreadable)) {
    std::fprintf(stderr, "pendrel serve: reload refused, the configuration in use stays: %s\n",
                 error.c_str());
    return;
  }
  if (settings.Listen != m_settings.Listen || settings.Workers != m_settings.Workers) {
    std::fprintf(stderr,
                 "pendrel serve: reload: listen addresses and workers change only with a "
                 "restart\n");
  }
  settings.Listen = m_settings.Listen;
  settings.Workers = m_settings.Workers;
  std::shared_ptr<CTable> fresh = MakeTable(settings);
  std::shared_ptr<CTable> old;
  {
    std::lock_guard<std::mutex> hold(m_tableLock);
    old = std::move(m_table);
    m_table = fresh;
  }
  m_settings = std::move(settings);
  std::fprintf(stderr, "pendrel serve: reloaded: %zu mounts; draining the old pools\n",
               fresh->Mounts.size());
  for (const auto& mount : old->Mounts) mount->Stop(m_settings.DrainMs);
  std::fprintf(stderr, "pendrel serve: reload: the old pools are stopped\n");
}

void CServer::CloseIdleSessions() {
  const auto now = Clock::now();
  for (const auto& mount : Table()->Mounts) mount->CloseIdleSessions(now);
}

CRouted CServer::Route(std::string_view method, std::string_view target) {
  CRouted routed;
  // Origin form ("/path?query"), or the absolute form that requests through proxies carry.
  const bool absolute = target.substr(0, 7) == "http://" || target.substr(0, 8) == "https://";
  const auto url =
      absolute ? boost::urls::parse_absolute_uri(target) : boost::urls::parse_origin_form(target);
  if (!url || url->has_fragment() || (absolute && url->encoded_path().empty())) {
    routed.Rejection = Problem(400, "the request target is not a path with an optional query");
    return routed;
  }
  const std::string_view path = url->encoded_path();
  if (path == "/_health" || path == "/_metrics") {
    if (method != "GET" && method != "HEAD") {
      routed.Rejection = Problem(405, "this route takes GET or HEAD");
      routed.Rejection.Fields.emplace_back("Allow", "GET, HEAD");
      return routed;
    }
    routed.Kind = path == "/_health" ? CRouted::EKind::Health : CRouted::EKind::Metrics;
    return routed;
  }
  std::shared_ptr<CTable> table = Table();
  for (const auto& mount : table->Mounts) {
    if (!UnderPrefix(path, mount->Prefix())) continue;
    routed.Kind = CRouted::EKind::Mount;
    routed.Mount = mount;
    routed.Label = mount->Prefix();
    routed.Path = std::string(mount->Prefix() == "/" ? path : path.substr(mount->Prefix().size()));
    routed.Query = std::string(url->encoded_query());
    routed.MaxBody = table->MaxBody;
    // Waiting for a worker is bounded like waiting for a handler, though never below 1 s: a
    // pool that does not queue (queue_wait_s = 0) still lets a request reach a worker.
    routed.QueueWait = std::chrono::milliseconds(
        std::max<std::uint32_t>(mount->Pool().Settings().QueueWaitMs, 1000));
    return routed;
  }
  routed.Rejection = Problem(404, "nothing is mounted at " + std::string(path));
  return routed;
}

CReply CServer::Handle(CRouted&& routed, CHttpRequestParts&& parts) {
  parts.Path = std::move(routed.Path);
  parts.Query = std::move(routed.Query);
  return routed.Mount->Serve(std::move(parts));
}

CReply CServer::Inline(const CRouted& routed) {
  std::shared_ptr<CTable> table = Table();
  CReply reply;
  if (routed.Kind == CRouted::EKind::Health) {
    std::string body = "{\"status\":";
    std::string mounts;
    bool healthy = true;
    for (const auto& mount : table->Mounts) {
      const bool ok = mount->Pool().CanServe();
      healthy = healthy && ok;
      mounts += std::string(mounts.empty() ? "" : ",") + JsonQuoted(mount->Prefix()) + ":" +
                (ok ? "\"ok\"" : "\"failing\"");
    }
    reply.Status = healthy ? 200 : 503;
    reply.Fields.emplace_back("Content-Type", "application/json; charset=utf-8");
    reply.Body = body + (healthy ? "\"ok\"" : "\"failing\"") + ",\"mounts\":{" + mounts + "}}";
    return reply;
  }
  std::vector<std::pair<std::string, CTolvane::CHandlerPoolStats>> pools;
  for (const auto& mount : table->Mounts)
    pools.emplace_back(mount->Prefix(), mount->Pool().Stats());
  reply.Fields.emplace_back("Content-Type", "text/plain; version=0.0.4; charset=utf-8");
  reply.Body = m_metrics.Page(pools);
  return reply;
}

void CServer::Finished(const CLogEntry& entry) {
  m_metrics.Record(entry.Label, entry.Status, entry.Seconds, entry.BytesIn, entry.BytesOut);
  // One line built in one buffer, without printf, and written with one call.
  std::string line;
  line.reserve(224 + entry.Method.size() + entry.Target.size() + entry.RequestId.size());
  line += "{\"time\":\"";
  AppendUtcTime(line, std::chrono::system_clock::now());
  line += "\",\"method\":";
  line += JsonQuoted(entry.Method);
  line += ",\"path\":";
  line += JsonQuoted(entry.Target);
  line += ",\"status\":";
  AppendDecimal(line, entry.Status);
  line += ",\"bytes_in\":";
  AppendDecimal(line, entry.BytesIn);
  line += ",\"bytes_out\":";
  AppendDecimal(line, entry.BytesOut);
  line += ",\"duration_s\":";
  AppendFixed6(line, entry.Seconds);
  line += ",\"handler_pid\":";
  AppendDecimal(line, entry.HandlerPid);
  line += ",\"request_id\":";
  line += JsonQuoted(entry.RequestId);
  line += "}\n";
  std::lock_guard<std::mutex> hold(m_logLock);
  std::fwrite(line.data(), 1, line.size(), stderr);
}

std::string CServer::MakeRequestId() {
  thread_local std::mt19937_64 generator{std::random_device{}()};
  std::string id;
  AppendHex16(id, generator());
  return id;
}

}  // namespace PendrelServer
