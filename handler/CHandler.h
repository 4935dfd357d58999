// CTolvane::CHandler: the client side of one handler process.
//
// A host makes a CHandler, calls Start with the path of a handler program, and from then on
// passes requests to that process and reads its answers. The library serves a pipe, starts
// the handler with the pipe's name on its command line, and waits for it to connect; each
// exchange sends one message and waits for one answer, one exchange at a time per handler.
//
// Errors are returned as EErrorCode and stick: the first failed exchange leaves the handler
// failed for good, and every later exchange returns that code without sending anything. A
// new CHandler is the way back.
//
// Threads: Start must not run at the same time as other calls on the same object; the
// exchanges (HandleRequest, the Request… queries, OnCreateSession) may be called from any
// number of threads at once and are served one after the other. The handler process is
// never waited for or ended by the library: it learns that it is done when its pipe closes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "message/CRequest.h"
#include "message/CResponse.h"
#include "message/Export.h"
#include "pipe/ChannelFailure.h"

namespace CTolvane {

// What a handler operation returns and LastError reports.
enum EErrorCode : std::int32_t {
  Ok = 0,
  ChannelError = 1,     // the pipe failed while a request waited for its answer
  ResponseTimeout = 2,  // no answer within ResponseTimeoutS seconds
  BadResponse = 3,      // the answer could not be read (an error while reading it)
  NotStarted = 4,       // no started, connected handler to ask
  StartFailed = 5,      // the handler could not be started or did not connect in time
};

// A handler's description, as RequestHandlerInfo reads it.
class PENDREL_API CHandlerInfo {
 public:
  std::wstring Name;
  std::wstring Description;
  std::wstring Version;

  CHandlerInfo();
  CHandlerInfo(const CHandlerInfo& other);
  CHandlerInfo(CHandlerInfo&& other) noexcept;
  CHandlerInfo& operator=(const CHandlerInfo& other);
  CHandlerInfo& operator=(CHandlerInfo&& other) noexcept;
  ~CHandlerInfo();
};

// One task's description, as RequestHandlerTaskInfo reads it.
class PENDREL_API CHandlerTaskInfo {
 public:
  std::wstring Name;
  std::wstring Description;

  CHandlerTaskInfo();
  CHandlerTaskInfo(const CHandlerTaskInfo& other);
  CHandlerTaskInfo(CHandlerTaskInfo&& other) noexcept;
  CHandlerTaskInfo& operator=(const CHandlerTaskInfo& other);
  CHandlerTaskInfo& operator=(CHandlerTaskInfo&& other) noexcept;
  ~CHandlerTaskInfo();
};

class PENDREL_API CHandler {
 public:
  // How long an exchange waits for its answer, in seconds (120). Hosts may change it
  // before the exchanges that should use it.
  std::int32_t ResponseTimeoutS = 120;

  CHandler();
  // Copies share the handler process's pipe and request lock with the source (the last
  // owner closes the pipe); the error state, session and mode are copied.
  CHandler(const CHandler& other);
  CHandler& operator=(const CHandler& other);
  // Closes the pipe if this is its last owner: queued messages get up to 60 s to go out.
  ~CHandler();

  // Starts the handler program `path` with the command line
  //   QuoteCommandPath(path) " _MN_=<pipe name> _DM_=<mode> _EX_=2" [" " extraArguments]
  // (`path` quoted when it holds a blank, tab or "+"), after creating the pipe it is to
  // connect to, and waits up to 10 s for it to connect. Returns Ok, or StartFailed when the
  // program cannot be started, ends before connecting (noticed at once) or does not connect
  // in time; GetResponseErrorMessage then says which. A second Start lets go of the first
  // handler's pipe. A failed Start leaves LastError at StartFailed for good.
  EErrorCode Start(std::wstring path, int mode, const std::wstring& extraArguments);

  // The sticky error: Ok until an operation fails.
  EErrorCode LastError();

  // The pipe's error text of the last failed exchange (or failed Start); empty if none.
  std::wstring GetResponseErrorMessage();

  // What GetResponseErrorMessage's text reports, as a code: the step that failed and its
  // number (ChannelFailure.h); Failure None when the text is empty. Any thread.
  Pendrel::CChannelFailure GetChannelFailure();

  // Sends `request` as its JSON document and reads the answer into `response`. Returns
  // NotStarted (and makes it the last error) when the handler is not connected; else as
  // the exchange: Ok, ChannelError, ResponseTimeout, BadResponse, or the earlier error. A
  // handler whose pipe failed because it sent more messages unasked than the host keeps
  // gets ChannelError with that failure's text.
  EErrorCode HandleRequest(const Pendrel::CRequest& request, Pendrel::CResponse& response);

  // Queries. Each sends its command word and, on Ok, reads named values from the answer's
  // Parameters; a missing value is no error and leaves the output as it was.
  // "RequestHandlerInfo": "Name", "Description", "Version", copied only if all three exist.
  EErrorCode RequestHandlerInfo(CHandlerInfo& info);
  // "RequestHandlerTaskInfo&TaskCode=<taskCode>": "Name" and "Description", if both exist.
  EErrorCode RequestHandlerTaskInfo(const std::wstring& taskCode, CHandlerTaskInfo& info);
  // "RequestInputFileSize": "InputFileSize", read as an unsigned 32-bit decimal into the low
  // half of `size` (the high half keeps its value: pass a zeroed variable).
  EErrorCode RequestInputFileSize(unsigned long long& size);
  // "RequestLibVersion": "LibVersion", read as an unsigned decimal.
  EErrorCode RequestLibVersion(unsigned int& version);
  // "RequestAllOutputFiles": the answer itself goes into `response`.
  EErrorCode RequestAllOutputFiles(Pendrel::CResponse& response);

  // Opens a session: sends "OnCreateSession&SessionKey=…&User=…&HandleTaskID=…
  // &HandlerCode=…&HandlerTaskCode=…&LogFileName=…&TaskTimeoutS=…" (values unescaped; the
  // low 32 bits of `taskTimeoutS` as an unsigned number) and reads the answer into
  // `response`. The session key and the moment name the transaction log's files.
  EErrorCode OnCreateSession(std::wstring sessionKey, std::wstring user, std::wstring handleTaskId,
                             std::wstring handlerCode, std::wstring handlerTaskCode,
                             std::wstring logFileName, long long taskTimeoutS,
                             Pendrel::CResponse& response);

  // Sends the one-way notice "OnCloseSession" and waits until it has gone out (up to 9.99 s).
  // If an answer nobody read is waiting, it first waits up to ResponseTimeoutS seconds for
  // it to be taken, and returns without waiting for the notice if it is not. Needs a
  // started handler; reports nothing.
  void OnCloseSession();

 private:
  // Sends `json` (moved into the channel, not copied) and reads the answer into `response`.
  EErrorCode DoRequest(std::string json, Pendrel::CResponse& response);
  void LogTransaction(const std::string& request, const std::string& response);
  std::wstring GetKesh2SessionID();
  std::wstring GetKesh2SessionStartTime();

  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace CTolvane
