#include "tools/server/Mount.h"

#include <atomic>
#include <boost/url/pct_string_view.hpp>  // percent-decoding of route segments
#include <cstdio>                         // std::fprintf
#include <nlohmann/json.hpp>              // the session-creation body and the info answers
#include <utility>

#include "message/CRequest.h"
#include "message/CResponse.h"
#include "tools/server/Text.h"
#include "tools/server/forms/HttpForms.h"

namespace PendrelServer {

struct CMount::CSession {
  std::mutex Lock;                // held for each exchange with the session's handler
  CTolvane::CHandlerLease Lease;  // under Lock; empty once the session is over
  std::chrono::seconds Timeout{600};
  std::atomic<Clock::rep> LastUse{0};  // Clock ticks of the end of the last use

  Clock::time_point Deadline() const {
    return Clock::time_point(Clock::duration(LastUse.load())) + Timeout;
  }
  void Touch() { LastUse.store(Clock::now().time_since_epoch().count()); }
};

namespace {

using CTolvane::EErrorCode;
using CTolvane::EPoolWait;

constexpr std::int64_t kDefaultSessionTimeoutS = 600;
constexpr std::size_t kMaxSessionBody = 64 * 1024;

struct CErrorText {
  EErrorCode Code;
  const char* Name;
  const char* Meaning;
};
constexpr CErrorText kErrorTexts[] = {
    {CTolvane::ChannelError, "ChannelError", "the pipe to the handler failed"},
    {CTolvane::ResponseTimeout, "ResponseTimeout", "the handler did not answer in time"},
    {CTolvane::BadResponse, "BadResponse", "the handler's answer could not be read"},
    {CTolvane::NotStarted, "NotStarted", "the handler is not connected"},
    {CTolvane::StartFailed, "StartFailed", "the handler could not be started"},
};

// The percent-decoded text of `segment`; false when its encoding is broken.
bool Decode(const std::string& segment, std::string& decoded) {
  auto view = boost::urls::make_pct_string_view(segment);
  if (!view) return false;
  decoded = view->decode();
  return true;
}

std::string PercentEncode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
        (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' || byte == '_' || byte == '~') {
      out.push_back(c);
    } else {
      out.push_back('%');
      out.push_back(kHex[byte >> 4]);
      out.push_back(kHex[byte & 15]);
    }
  }
  return out;
}

CReply ExchangeFailed(EErrorCode code, CTolvane::CHandler& handler, const std::string& what) {
  const CErrorText* text = nullptr;
  for (const CErrorText& entry : kErrorTexts) {
    if (entry.Code == code) text = &entry;
  }
  std::string detail = what + " failed with " + (text ? text->Name : "an unknown error") + ": " +
                       (text ? text->Meaning : "no meaning known");
  std::string message = Utf8FromWide(handler.GetResponseErrorMessage());
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) {
    message.pop_back();
  }
  if (!message.empty()) detail += " (" + message + ")";
  CReply reply = Problem(code == CTolvane::ResponseTimeout ? 504 : 502, detail);
  reply.HandlerPid = handler.GetProcessId();
  return reply;
}

CReply PoolProblem(EPoolWait wait, const CTolvane::CHandlerPoolSettings& settings,
                   const std::string& prefix) {
  CReply reply;
  switch (wait) {
    case EPoolWait::QueueFull:
      reply = Problem(503, "too many requests are waiting for a handler of " + prefix + " (" +
                               std::to_string(settings.QueueLength) + " at most)");
      break;
    case EPoolWait::TimedOut:
      reply = Problem(503, "no handler of " + prefix + " became free within " +
                               std::to_string(settings.QueueWaitMs / 1000) + " s");
      break;
    case EPoolWait::StartFailed:
      return Problem(502, "the handler program of " + prefix + " (" +
                              Utf8FromWide(settings.Program) + ") could not be started");
    default:
      return Problem(503, "the server is stopping");
  }
  reply.Fields.emplace_back("Retry-After", "1");
  return reply;
}

// The response's HTTP form as the answer, its status as X-Pendrel-Status.
CReply Answer(Pendrel::CResponse&& response, unsigned status, std::uint32_t pid) {
  const auto pendrelStatus = static_cast<long long>(response.Status);
  CHttpAnswer answer = AnswerOf(std::move(response));
  CReply reply;
  reply.Status = status;
  reply.Fields = std::move(answer.Fields);
  reply.Fields.emplace_back("X-Pendrel-Status", std::to_string(pendrelStatus));
  reply.Body = std::move(answer.Body);
  reply.HandlerPid = pid;
  return reply;
}

CReply Json(const nlohmann::json& value, std::uint32_t pid) {
  CReply reply;
  reply.Fields.emplace_back("Content-Type", "application/json; charset=utf-8");
  reply.Body = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  reply.HandlerPid = pid;
  return reply;
}

CReply MethodNotAllowed(const char* allowed) {
  CReply reply = Problem(405, std::string("this route takes ") + allowed);
  reply.Fields.emplace_back("Allow", allowed);
  return reply;
}

// Splits "/a/b/c" into {"a", "b", "c"}; "" gives none.
std::vector<std::string> Segments(const std::string& path) {
  std::vector<std::string> segments;
  std::size_t at = 0;
  while (at < path.size()) {
    const std::size_t next = path.find('/', at + 1);
    segments.push_back(
        path.substr(at + 1, next == std::string::npos ? std::string::npos : next - at - 1));
    at = next == std::string::npos ? path.size() : next;
  }
  return segments;
}

}  // namespace

CMount::CMount(CMountSettings settings, std::function<void()> sessionsChanged)
    : m_settings(std::move(settings)),
      m_sessionsChanged(std::move(sessionsChanged)),
      m_pool(m_settings.Pool) {}

CMount::~CMount() { Stop(0); }

CReply CMount::Serve(CHttpRequestParts&& parts) {
  const std::string& path = parts.Path;
  const std::string& method = parts.Method;
  if (path.size() < 2 || path[0] != '/' || path[1] != '_') return Exchange(std::move(parts));
  const std::vector<std::string> segments = Segments(path);
  std::vector<std::string> decoded(segments.size());
  for (std::size_t i = 0; i < segments.size(); ++i) {
    if (!Decode(segments[i], decoded[i])) {
      return Problem(400,
                     "the path segment \"" + segments[i] + "\" holds a broken percent-encoding");
    }
  }
  const std::string& route = decoded[0];
  if (route == "_info" && decoded.size() == 1) {
    return method == "GET" ? Info() : MethodNotAllowed("GET");
  }
  if (route == "_tasks" && decoded.size() == 2) {
    return method == "GET" ? TaskInfo(decoded[1]) : MethodNotAllowed("GET");
  }
  if (route == "_sessions" && decoded.size() == 1) {
    return method == "POST" ? CreateSession(parts.Body) : MethodNotAllowed("POST");
  }
  if (route == "_sessions" && decoded.size() == 2 && !decoded[1].empty()) {
    return method == "DELETE" ? CloseSession(WideFromUtf8(decoded[1])) : MethodNotAllowed("DELETE");
  }
  if (route == "_sessions" && decoded.size() == 3 && decoded[2] == "files") {
    return method == "GET" ? SessionFiles(WideFromUtf8(decoded[1])) : MethodNotAllowed("GET");
  }
  return Problem(404, "no route " + m_settings.Prefix + path +
                          " (routes starting with \"_\" are _info, _tasks/{code}, _sessions, "
                          "_sessions/{key} and _sessions/{key}/files)");
}

CReply CMount::Exchange(CHttpRequestParts&& parts) {
  if (parts.Method != "GET" && parts.Method != "POST") return MethodNotAllowed("GET, POST");
  CReadRequest read;
  if (!ReadRequest(std::move(parts), read)) {
    return Problem(400, read.Problem);
  }
  if (!read.SessionKey.empty()) {
    if (std::shared_ptr<CSession> session = FindSession(read.SessionKey)) {
      std::unique_lock<std::mutex> hold(session->Lock);
      if (session->Lease) {
        session->Touch();
        Pendrel::CResponse response;
        const EErrorCode code = session->Lease->HandleRequest(read.Request, response);
        session->Touch();
        if (code != CTolvane::Ok) {
          CReply reply = ExchangeFailed(code, *session->Lease, "the session's request");
          hold.unlock();
          EndSession(read.SessionKey, session);
          return reply;
        }
        return Answer(std::move(response), 200, session->Lease->GetProcessId());
      }
      // The session closed while this request waited: the pool serves it as any other.
    }
  }
  CTolvane::CHandlerLease lease;
  if (const EPoolWait wait = m_pool.Borrow(lease); wait != EPoolWait::Ok) {
    return PoolProblem(wait, m_settings.Pool, m_settings.Prefix);
  }
  Pendrel::CResponse response;
  if (const EErrorCode code = lease->HandleRequest(read.Request, response)) {
    return ExchangeFailed(code, *lease, "the request");
  }
  return Answer(std::move(response), 200, lease->GetProcessId());
}

CReply CMount::Info() {
  CTolvane::CHandlerLease lease;
  if (const EPoolWait wait = m_pool.Borrow(lease); wait != EPoolWait::Ok) {
    return PoolProblem(wait, m_settings.Pool, m_settings.Prefix);
  }
  CTolvane::CHandlerInfo info;
  if (const EErrorCode code = lease->RequestHandlerInfo(info)) {
    return ExchangeFailed(code, *lease, "RequestHandlerInfo");
  }
  unsigned int libVersion = 0;
  if (const EErrorCode code = lease->RequestLibVersion(libVersion)) {
    return ExchangeFailed(code, *lease, "RequestLibVersion");
  }
  unsigned long long inputFileSize = 0;
  if (const EErrorCode code = lease->RequestInputFileSize(inputFileSize)) {
    return ExchangeFailed(code, *lease, "RequestInputFileSize");
  }
  return Json({{"name", Utf8FromWide(info.Name)},
               {"description", Utf8FromWide(info.Description)},
               {"version", Utf8FromWide(info.Version)},
               {"lib_version", libVersion},
               {"input_file_size", inputFileSize}},
              lease->GetProcessId());
}

CReply CMount::TaskInfo(const std::string& code) {
  CTolvane::CHandlerLease lease;
  if (const EPoolWait wait = m_pool.Borrow(lease); wait != EPoolWait::Ok) {
    return PoolProblem(wait, m_settings.Pool, m_settings.Prefix);
  }
  CTolvane::CHandlerTaskInfo info;
  if (const EErrorCode error = lease->RequestHandlerTaskInfo(WideFromUtf8(code), info)) {
    return ExchangeFailed(error, *lease, "RequestHandlerTaskInfo");
  }
  if (info.Name.empty() && info.Description.empty()) {
    CReply reply =
        Problem(404, "the handler of " + m_settings.Prefix + " knows no task \"" + code + "\"");
    reply.HandlerPid = lease->GetProcessId();
    return reply;
  }
  return Json({{"code", code},
               {"name", Utf8FromWide(info.Name)},
               {"description", Utf8FromWide(info.Description)}},
              lease->GetProcessId());
}

CReply CMount::CreateSession(const std::string& body) {
  if (body.size() > kMaxSessionBody) {
    return Problem(
        413, "the body of POST _sessions is over " + std::to_string(kMaxSessionBody) + " bytes");
  }
  const nlohmann::json document = nlohmann::json::parse(body, nullptr, false);
  if (!document.is_object()) {
    return Problem(400, "the body of POST _sessions must be a JSON object with \"key\"");
  }
  // Text fields accept strings and numbers; a missing field is empty.
  std::wstring fields[6];
  static const char* const kNames[6] = {"key",          "user",      "task_id",
                                        "handler_code", "task_code", "log_file"};
  for (int i = 0; i < 6; ++i) {
    const auto found = document.find(kNames[i]);
    if (found == document.end() || found->is_null()) continue;
    if (found->is_string()) {
      fields[i] = WideFromUtf8(found->get<std::string>());
    } else if (found->is_number_integer()) {
      fields[i] = WideFromUtf8(found->dump());
    } else {
      return Problem(400, std::string("\"") + kNames[i] + "\" must be a string");
    }
  }
  if (fields[0].empty()) return Problem(400, "\"key\" is missing or empty");
  std::int64_t timeoutS = kDefaultSessionTimeoutS;
  if (const auto found = document.find("timeout_s"); found != document.end()) {
    if (!found->is_number_integer() || found->get<std::int64_t>() < 1 ||
        found->get<std::int64_t>() > 100000000) {
      return Problem(400, "\"timeout_s\" must be a whole number of seconds from 1 to 100000000");
    }
    timeoutS = found->get<std::int64_t>();
  }
  const std::string keyText = Utf8FromWide(fields[0]);
  if (FindSession(fields[0]))
    return Problem(409, "the session \"" + keyText + "\" is open already");

  auto session = std::make_shared<CSession>();
  session->Timeout = std::chrono::seconds(timeoutS);
  if (const EPoolWait wait = m_pool.TakeForSession(session->Lease); wait != EPoolWait::Ok) {
    return PoolProblem(wait, m_settings.Pool, m_settings.Prefix);
  }
  Pendrel::CResponse response;
  if (const EErrorCode code = session->Lease->OnCreateSession(
          fields[0], fields[1], fields[2], fields[3], fields[4], fields[5], timeoutS, response)) {
    return ExchangeFailed(code, *session->Lease, "OnCreateSession");
  }
  const std::uint32_t pid = session->Lease->GetProcessId();
  session->Touch();
  {
    std::lock_guard<std::mutex> hold(m_sessionsLock);
    if (!m_sessions.emplace(fields[0], session).second) {
      // Another request opened the same key meanwhile; this handler goes.
      session->Lease->OnCloseSession();
      return Problem(409, "the session \"" + keyText + "\" is open already");
    }
  }
  if (m_sessionsChanged) m_sessionsChanged();
  CReply reply = Answer(std::move(response), 201, pid);
  reply.Fields.emplace_back("Location", m_settings.Prefix + "/_sessions/" + PercentEncode(keyText));
  return reply;
}

CReply CMount::CloseSession(const std::wstring& key) {
  std::shared_ptr<CSession> session = FindSession(key);
  if (!session) return Problem(404, "no open session \"" + Utf8FromWide(key) + "\"");
  EndSession(key, session);
  CReply reply;
  reply.Status = 204;
  return reply;
}

CReply CMount::SessionFiles(const std::wstring& key) {
  std::shared_ptr<CSession> session = FindSession(key);
  if (!session) return Problem(404, "no open session \"" + Utf8FromWide(key) + "\"");
  std::unique_lock<std::mutex> hold(session->Lock);
  if (!session->Lease) return Problem(404, "no open session \"" + Utf8FromWide(key) + "\"");
  Pendrel::CResponse response;
  const EErrorCode code = session->Lease->RequestAllOutputFiles(response);
  session->Touch();
  if (code != CTolvane::Ok) {
    CReply reply = ExchangeFailed(code, *session->Lease, "RequestAllOutputFiles");
    hold.unlock();
    EndSession(key, session);
    return reply;
  }
  return Answer(std::move(response), 200, session->Lease->GetProcessId());
}

std::shared_ptr<CMount::CSession> CMount::FindSession(const std::wstring& key) {
  std::lock_guard<std::mutex> hold(m_sessionsLock);
  const auto found = m_sessions.find(key);
  return found == m_sessions.end() ? nullptr : found->second;
}

void CMount::EndSession(const std::wstring& key, const std::shared_ptr<CSession>& session) {
  {
    std::lock_guard<std::mutex> hold(m_sessionsLock);
    const auto found = m_sessions.find(key);
    if (found != m_sessions.end() && found->second == session) m_sessions.erase(found);
  }
  std::lock_guard<std::mutex> hold(session->Lock);
  if (!session->Lease) return;
  if (session->Lease->LastError() == CTolvane::Ok) session->Lease->OnCloseSession();
  session->Lease.Release();  // a session's handler is always retired
}

std::optional<CMount::Clock::time_point> CMount::NextSessionDeadline() {
  std::lock_guard<std::mutex> hold(m_sessionsLock);
  std::optional<Clock::time_point> next;
  for (const auto& [key, session] : m_sessions) {
    const Clock::time_point deadline = session->Deadline();
    if (!next || deadline < *next) next = deadline;
  }
  return next;
}

void CMount::CloseIdleSessions(Clock::time_point now) {
  std::vector<std::pair<std::wstring, std::shared_ptr<CSession>>> idle;
  {
    std::lock_guard<std::mutex> hold(m_sessionsLock);
    for (const auto& [key, session] : m_sessions) {
      if (session->Deadline() <= now) idle.emplace_back(key, session);
    }
  }
  for (const auto& [key, session] : idle) {
    EndSession(key, session);
    std::fprintf(stderr, "pendrel serve: %s: session \"%s\" closed after %lld s unused\n",
                 m_settings.Prefix.c_str(), Utf8FromWide(key).c_str(),
                 static_cast<long long>(session->Timeout.count()));
  }
}

void CMount::Stop(std::uint32_t drainMs) {
  std::map<std::wstring, std::shared_ptr<CSession>> sessions;
  {
    std::lock_guard<std::mutex> hold(m_sessionsLock);
    sessions.swap(m_sessions);
  }
  for (const auto& [key, session] : sessions) EndSession(key, session);
  m_pool.Stop(drainMs);
}

}  // namespace PendrelServer
