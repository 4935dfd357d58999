// CMount: one mounted handler program: its pool, its open sessions, and what each route under
// its prefix does with them.
//
// Serve runs one request to the end and blocks while it waits for a handler and for the
// handler's answer, so it runs on a worker thread, never on an I/O thread. Requests are read
// with ReadRequest (forms/HttpForms.h) and answered with AnswerOf; the routes whose first
// segment starts with "_" are the mount's management routes (_info, _tasks, _sessions).
//
// Sessions: POST _sessions takes a handler out of the pool for the session's life; requests
// whose session key names an open session go to that handler, one at a time. A session
// unused for its time-out is closed by CloseIdleSessions, which the server's control thread
// calls at NextSessionDeadline. A session whose exchange failed is closed at once.
//
// Threads: every member may be called from any thread at once; Stop must be the last call
// but the destructor.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "handler/CHandlerPool.h"
#include "tools/server/Reply.h"
#include "tools/server/ServeOptions.h"
#include "tools/server/forms/HttpForms.h"

namespace PendrelServer {

class CMount {
 public:
  using Clock = std::chrono::steady_clock;

  // Starts the pool. `sessionsChanged` is called (from any thread) when a session's deadline
  // may have moved earlier, so that the control thread looks again.
  CMount(CMountSettings settings, std::function<void()> sessionsChanged);
  ~CMount();
  CMount(const CMount&) = delete;
  CMount& operator=(const CMount&) = delete;

  const std::string& Prefix() const noexcept { return m_settings.Prefix; }
  CTolvane::CHandlerPool& Pool() noexcept { return m_pool; }

  // Answers one request under the prefix. `parts.Path` is the percent-encoded path after
  // the prefix ("" or "/..."). Blocks; a worker thread.
  CReply Serve(CHttpRequestParts&& parts);

  // The earliest moment an open session runs out of time; none without sessions.
  std::optional<Clock::time_point> NextSessionDeadline();
  // Closes the sessions unused for their time-out as of `now`. Blocks while the handlers are
  // told; the control thread.
  void CloseIdleSessions(Clock::time_point now);

  // Closes every session, then stops the pool, waiting up to `drainMs` for exchanges in
  // flight (CHandlerPool::Stop).
  void Stop(std::uint32_t drainMs);

 private:
  struct CSession;
  CReply Exchange(CHttpRequestParts&& parts);
  CReply Info();
  CReply TaskInfo(const std::string& code);
  CReply CreateSession(const std::string& body);
  CReply CloseSession(const std::wstring& key);
  CReply SessionFiles(const std::wstring& key);
  std::shared_ptr<CSession> FindSession(const std::wstring& key);
  // Takes the session out of the table and tells its handler; the handler is retired.
  void EndSession(const std::wstring& key, const std::shared_ptr<CSession>& session);

  const CMountSettings m_settings;
  std::function<void()> m_sessionsChanged;
  CTolvane::CHandlerPool m_pool;
  std::mutex m_sessionsLock;
  std::map<std::wstring, std::shared_ptr<CSession>> m_sessions;  // under m_sessionsLock
};

}  // namespace PendrelServer
