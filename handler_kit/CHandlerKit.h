// CHandlerKit serves the library's side of the conversation for a handler program: it
// connects to the pipe named on the command line as the client, takes the library's
// messages one at a time, hands each to the matching callback, and answers every message
// but "OnCloseSession" with exactly one CResponse in its full JSON form, in order. It ends
// when the library closes the pipe.
//
//   int main(int argc, char** argv) {
//     PendrelKit::CHandlerKit kit;
//     kit.Info = {L"Echo", L"Answers every request with its own files", L"1.0"};
//     kit.OnRequest = [](Pendrel::CRequest& request) {
//       Pendrel::CResponse response;
//       response.Data = std::move(request.InputData);
//       return response;
//     };
//     return kit.Run(argc, argv);
//   }
//
// Defaults, for callbacks left empty: "RequestHandlerInfo" answers Info;
// "RequestHandlerTaskInfo" answers the entry of Tasks under the task code, or an error
// response for a code not there; "RequestInputFileSize" and "RequestLibVersion" answer
// InputFileSize and LibVersion; "RequestAllOutputFiles" and "OnCreateSession" answer an
// empty CResponse (status 3); a request gets an error response; "OnCloseSession" does
// nothing. A message of no known kind gets an error response. Error responses are
// Pendrel::CResponse(message): status 3 and Parameters {"error": message}.
//
// Failures: a callback that throws is answered with an error response naming the
// exception, so the library is never left waiting; exceptions of OnConnected, OnMessage and
// OnCloseSession are swallowed (OnMessage's message is then dispatched as usual). The
// channel's own failures (the library went away, a broken packet) end Run like a close;
// LastErrorText says which. Only running out of memory leaves Run as an exception.
//
// Thread rules: set the fields and callbacks before Run and leave them alone while it runs.
// Run calls every callback on its own thread, one message at a time, in the order the
// messages came; a thread of the kit's own watches the pipe meanwhile. Post and Stop may be
// called from any thread, also from the callbacks.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "handler_kit/HandlerArguments.h"
#include "handler_kit/HandlerMessages.h"
#include "message/CRequest.h"
#include "message/CResponse.h"
#include "pipe/ChannelFailure.h"

namespace PendrelKit {

// Exit codes of Run, for a handler's main to return.
inline constexpr int kExitPipeClosed = 0;     // the library closed the pipe, or Stop
inline constexpr int kExitNoConnection = 2;   // the pipe could not be opened in time
inline constexpr int kExitBadArguments = 64;  // the command line was refused (Run(argc, argv))
// The library closed the pipe and a callback was still running CloseGracePeriodMs later: the
// kit ended the process with this code (std::_Exit, no clean-up).
inline constexpr int kExitCallbackOverran = 70;

// What OnMessage decided about a message.
enum class EMessageAction {
  Dispatch,  // the kit dispatches and answers it as usual
  Consumed,  // the kit does nothing more with it; OnMessage has posted an answer, or none
};

// The line (without its line end) that Run writes to Diagnostics when it could not connect
// to `pipeName` within `connectTimeMs`, the channel having failed with `failure`: which pipe,
// the system's reason where there is one, and that a host starts a handler.
std::string NoConnectionText(const std::wstring& pipeName, std::uint32_t connectTimeMs,
                             const Pendrel::CChannelFailure& failure);

class CHandlerKit {
 public:
  // What the default answers say.
  CHandlerDescription Info;
  std::map<std::wstring, CTaskDescription> Tasks;  // by task code
  std::uint64_t InputFileSize = 0;
  unsigned int LibVersion;  // Pendrel::Version, the record interface this kit was built with

  // How long Run tries to open the pipe. The library's end may appear only after the
  // handler has started, and the library waits 10 s for the handler to connect.
  std::uint32_t ConnectTimeMs = 10000;
  // How long a callback may go on once the library has closed the pipe. A callback still
  // running then is not coming back: the kit ends the process (kExitCallbackOverran), so
  // that a stuck handler does not outlive its host's interest in it.
  std::uint32_t CloseGracePeriodMs = 5000;
  // Where Run writes the one line that says why it ends without serving: a command line it
  // refused (Run(argc, argv): StartedByHandText) or a pipe it could not connect to. Standard
  // error by default (a handler's standard output may be its host's); nullptr for none.
  std::FILE* Diagnostics = stderr;

  // Called once the pipe is open, before the first message is taken.
  std::function<void()> OnConnected;
  // Sees every message first, as it arrived. Leave empty to dispatch everything.
  std::function<EMessageAction(const std::string& message)> OnMessage;

  // One callback per message kind; the answer is sent as returned.
  // The request is the kit's own, read for this call alone: the callback may take its files
  // and parameters (std::move) instead of copying them. A callback taking
  // `const Pendrel::CRequest&` fits as well.
  std::function<Pendrel::CResponse(Pendrel::CRequest& request)> OnRequest;
  std::function<Pendrel::CResponse()> OnHandlerInfo;
  std::function<Pendrel::CResponse(const std::wstring& taskCode)> OnTaskInfo;
  std::function<Pendrel::CResponse()> OnInputFileSize;
  std::function<Pendrel::CResponse()> OnLibVersion;
  std::function<Pendrel::CResponse()> OnAllOutputFiles;
  std::function<Pendrel::CResponse(const CSessionInfo& session)> OnCreateSession;
  std::function<void()> OnCloseSession;  // no answer is sent
  std::function<Pendrel::CResponse(const std::string& message)> OnUnknownMessage;

  CHandlerKit();
  // Closes the pipe if Run left it open (it never does on return).
  ~CHandlerKit();
  CHandlerKit(const CHandlerKit&) = delete;
  CHandlerKit& operator=(const CHandlerKit&) = delete;

  // Opens the client end of the pipe `arguments.PipeName`, trying again every 20 ms for up
  // to ConnectTimeMs while the library's end is not there, then serves messages until the
  // pipe closes or fails, or Stop is called. Answers already posted then get up to 60 s to
  // go out before the pipe is closed. Returns kExitPipeClosed, or kExitNoConnection when
  // the pipe could not be opened; ends the process instead when a callback overruns
  // CloseGracePeriodMs after the pipe closed. Runs once at a time, on the caller's thread.
  int Run(const CHandlerArguments& arguments);
  // ParseArguments, then Run; kExitBadArguments when the command line is refused.
  int Run(int argc, char** argv);
  int Run(int argc, wchar_t** argv);

  // The answer the kit gives `message`: calls the matching callback (or default) and
  // returns true with the answer's full JSON text in `answer`, or false, `answer` untouched,
  // for "OnCloseSession". Run calls it for every message OnMessage leaves to it; OnMessage
  // may call it too, to change or delay an answer. Same thread rules as the callbacks.
  bool Dispatch(const std::string& message, std::string& answer);

  // Sends `message` as it stands, after whatever was posted before, e.g. a message nobody
  // asked for. Returns false, dropping the message, when the pipe is not connected. Any
  // thread.
  bool Post(std::string message);

  // Makes Run take no further message: it returns after the message in hand (if any) has
  // been dealt with, also while still trying to connect. Sticky: a later Run returns at
  // once. Any thread.
  void Stop();

  // The channel's error text that ended the last Run (e.g. the library closed the pipe);
  // empty before any Run and when Stop ended it with the pipe intact. Any thread.
  std::wstring LastErrorText() const;

 private:
  // Handle, Answer and AnswerOf may consume `message` (a request's files are read within it).
  Pendrel::CResponse AnswerOf(EMessageKind kind, std::string& message);
  bool Answer(std::string& message, std::string& answer);
  void Handle(std::string& message);

  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace PendrelKit
