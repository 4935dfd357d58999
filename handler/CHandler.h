// CTolvane::CHandler: the client side of one handler process.
//
// A host makes a CHandler, calls Start with the path of a handler program, and from then on
// passes requests to that process and reads its answers. The library serves a pipe, starts
// the handler with the pipe's name on its command line, and waits for it to connect; each
// exchange sends one message and waits for one answer, one exchange at a time per handler.
//
// Errors are returned as EErrorCode and stick: the first failed exchange leaves the handler
// failed for good, and every later exchange returns that code without sending anything; so
// does every copy of it. A new CHandler is the way back.
//
// Threads: Start must not run at the same time as other calls on the same object; the
// exchanges (HandleRequest, the Request… queries, OnCreateSession) may be called from any
// number of threads at once and are served one after the other.
//
// Handler processes are supervised: when the last owner of a started handler lets go of it
// (destroyed, or Start called again), the pipe closes and the process gets
// StopGracePeriodMs to end by itself; then it is killed, and collected either way. The
// owner's thread does not wait for that. A handler also ends with its host, even when the
// host is killed (a job object on Windows, the parent-death signal on Linux). The handler
// finds the folder of its pipe in the environment variable PENDREL_PIPE_DIR.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "message/CRequest.h"
#include "message/CResponse.h"
#include "message/Export.h"
#include "pipe/ChannelFailure.h"

namespace CTolvane {

namespace detail {
struct HandlerAccess;  // the library's own view of a handler (handler/detail/HandlerAccess.h)
}

// What a handler operation returns and LastError reports.
enum EErrorCode : std::int32_t {
  Ok = 0,
  ChannelError = 1,     // the pipe failed while a request waited for its answer
  ResponseTimeout = 2,  // no answer within ResponseTimeoutS seconds
  BadResponse = 3,      // the answer could not be read (an error while reading it)
  NotStarted = 4,       // no started, connected handler to ask
  StartFailed = 5,      // the handler could not be started or did not connect in time
};

// What a handler's standard output and standard error are connected to.
enum class EChildOutput : std::int32_t {
  Inherited = 0,   // the host's own standard output and error, as the handler inherits them
  HostStderr = 1,  // both go to the host's standard error
  Discarded = 2,   // both are thrown away (/dev/null, NUL)
  File = 3,        // both are appended to CHandler::ChildOutputFile
};

// How a handler process ended, as far as the library knows.
enum class EHandlerEnd : std::int32_t {
  None = 0,      // no process: Start was not called or could not start the program
  Running = 1,   // the process has not ended (yet)
  Exited = 2,    // it ended by itself: Code is its exit status (Windows: its exit code)
  Signaled = 3,  // Linux: a signal ended it (also the library's kill): Code is the signal
};

struct CHandlerExit {
  EHandlerEnd How = EHandlerEnd::None;
  std::int32_t Code = 0;
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
  // How long a handler process is given to end by itself, in milliseconds (5000), once its
  // last owner has let go of it and its pipe is closed; it is then killed. The value of the
  // owner that lets go last applies.
  std::uint32_t StopGracePeriodMs = 5000;
  // Where the standard output and error of the handlers that Start starts from now on go
  // (Inherited). With EChildOutput::File they are appended to ChildOutputFile, which is
  // created when missing (Linux: mode 0600); a file that cannot be opened fails Start with
  // LaunchFailed and the system's error number.
  EChildOutput ChildOutput = EChildOutput::Inherited;
  std::wstring ChildOutputFile;

  CHandler();
  // Copies share the handler process's pipe and request lock with the source (the last
  // owner lets go of the handler); the error state, session, mode and settings are copied.
  // An exchange that fails on any copy fails the shared pipe: every copy's next exchange
  // returns that code (and its text) without sending, so no copy reads an answer that
  // belongs to another copy's failed request. Assignment lets go of the handler held before.
  CHandler(const CHandler& other);
  CHandler& operator=(const CHandler& other);
  // If this is the last owner of a started handler: closes the pipe (queued messages get up
  // to 60 s to go out, none once an exchange has failed) and leaves the process to the
  // supervision described above; returns without waiting for the process.
  ~CHandler();

  // Starts the handler program `path` with the command line
  //   QuoteCommandPath(path) " _MN_=<pipe name> _DM_=<mode> _EX_=2" [" " extraArguments]
  // (`path` quoted when it holds a blank, tab or "+"), after creating the pipe it is to
  // connect to, and waits up to 10 s for it to connect. Returns Ok, or StartFailed when the
  // program cannot be started, ends before connecting (noticed at once) or does not connect
  // in time; GetResponseErrorMessage then says which. A second Start lets go of the first
  // handler as the destructor does. A failed Start leaves LastError at StartFailed for good.
  EErrorCode Start(std::wstring path, int mode, const std::wstring& extraArguments);

  // The sticky error: Ok until an operation fails.
  EErrorCode LastError();

  // The pipe's error text of the last failed exchange (or failed Start); empty if none.
  std::wstring GetResponseErrorMessage();

  // What GetResponseErrorMessage's text reports, as a code: the step that failed and its
  // number (ChannelFailure.h); Failure None when the text is empty. Any thread.
  Pendrel::CChannelFailure GetChannelFailure();

  // How the process of the last Start ended, waiting up to `waitMs` milliseconds for it to
  // end if it still runs (0: not at all). None when no process was started; Running when it
  // has not ended by then. Never fails. Any thread, though not while Start or Stop runs.
  CHandlerExit GetHandlerExit(std::uint32_t waitMs = 0);

  // Lets go of the handler as the destructor does (the pipe closes once no copy holds it),
  // then waits up to `waitMs` milliseconds for its process to end, and says how it ended:
  // Running when it has not by then, None when no process was started. Afterwards this
  // object holds no handler: exchanges return NotStarted until the next Start. For a host
  // about to end, since a handler ends with its host: waiting lets the handler finish what
  // it was sent. Owner's thread, like Start.
  CHandlerExit Stop(std::uint32_t waitMs);

  // The system's process id of the last Start's process while this object holds it; 0 when
  // none was started. Any thread.
  std::uint32_t GetProcessId();

  // The system's error number (errno, GetLastError()) that made the last Start fail: the
  // program could not be started (LaunchFailed) or its pipe could not be made (OpenFailed);
  // 0 when Start succeeded, failed otherwise or was not called. Any thread.
  std::uint32_t GetStartErrorNumber();

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
  // Sends `json` and reads the answer into `response`. The rvalue form moves the text into
  // the channel instead of copying it.
  EErrorCode DoRequest(const std::string& json, Pendrel::CResponse& response);
  EErrorCode DoRequest(std::string&& json, Pendrel::CResponse& response);
  void LogTransaction(const std::string& request, const std::string& response);
  std::wstring GetKesh2SessionID();
  std::wstring GetKesh2SessionStartTime();

  friend struct detail::HandlerAccess;
  struct State;
  std::unique_ptr<State> m_state;
};

}  // namespace CTolvane
