#include "tools/cli/Commands.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>  // std::_Exit
#include <mutex>
#include <string_view>

#include "handler/CHandler.h"
#include "message/CRequest.h"
#include "message/CResponse.h"
#include "tools/cli/ExitCodes.h"
#include "tools/cli/Failures.h"
#include "tools/cli/Files.h"
#include "tools/cli/HandlerOutput.h"
#include "tools/cli/Options.h"
#include "tools/cli/Output.h"
#include "tools/cli/Requests.h"
#include "tools/cli/Signals.h"
#include "tools/cli/Text.h"

namespace PendrelCli {
namespace {

using CTolvane::EErrorCode;

// How long pendrel waits for a failed handler's process to end, to say how it ended, and
// for the handler's last output once it has.
constexpr std::uint32_t kEndWaitMs = 1000;
// --verbose shows this much of each message.
constexpr std::size_t kShownBytes = 1024;
// The error status of a response, which --fail turns into exit status 1.
constexpr Pendrel::EStatus kErrorStatus = static_cast<Pendrel::EStatus>(3);

struct CErrorName {
  EErrorCode Code;
  const char* Name;
};

// The handler client's codes by name, for --verbose.
constexpr CErrorName kErrorNames[] = {
    {CTolvane::Ok, "Ok"},
    {CTolvane::ChannelError, "ChannelError"},
    {CTolvane::ResponseTimeout, "ResponseTimeout"},
    {CTolvane::BadResponse, "BadResponse"},
    {CTolvane::NotStarted, "NotStarted"},
    {CTolvane::StartFailed, "StartFailed"},
};

const char* ErrorName(EErrorCode code) {
  for (const CErrorName& entry : kErrorNames) {
    if (entry.Code == code) return entry.Name;
  }
  return "?";
}

// Whether the pipe failed because the handler's end went away (or stopped mid-way), which its
// process's end explains.
bool BrokeOff(const Pendrel::CChannelFailure& failure) {
  return failure.Failure == Pendrel::EChannelFailure::PeerGone ||
         failure.Failure == Pendrel::EChannelFailure::PacketTimedOut ||
         failure.Failure == Pendrel::EChannelFailure::WriteFailed;
}

void Write(std::FILE* stream, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stream);
}

// Status 0: what pendrel reports of a query that went well.
Pendrel::CResponse Findings() { return Pendrel::CResponse(static_cast<Pendrel::EStatus>(0)); }

// Whether pendrel holds a handler, for the signal watcher: a held handler's process is asked
// to end; without one pendrel may end at once, having nothing to clean up. The process id is
// set by the owner's thread once Start has returned (a signal during Start is seen when it
// returns), so that the watcher never touches the CHandler itself.
class CHolding {
 public:
  // Before Start creates anything.
  void Hold() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_held = true;
  }
  void SetProcessId(std::uint32_t pid) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_pid = pid;
  }
  // After the handler's Stop: what it had is gone.
  void Release() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_held = false;
    m_pid = 0;
  }
  // The watcher's part: the process id of the handler held (0: not known yet); with none
  // held, `endNow` is called under the lock, so that no handler can be started meanwhile.
  template <typename EndNow>
  std::uint32_t OnSignal(EndNow endNow) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_held) endNow();
    return m_pid;
  }

 private:
  std::mutex m_mutex;
  bool m_held = false;      // guarded by m_mutex
  std::uint32_t m_pid = 0;  // guarded by m_mutex
};

// One run of a command: its options, the handler it drives and the two output streams.
class CRun {
 public:
  CRun(const CCliOptions& options, std::FILE* out, std::FILE* err, CHolding& holding,
       const CStopSignals& signals)
      : m_options(options),
        m_out(out),
        m_err(err),
        m_holding(holding),
        m_signals(signals),
        m_handlerOutput(err) {
    m_handler.ResponseTimeoutS = options.TimeoutS;
  }
  ~CRun() { StopHandler(); }
  CRun(const CRun&) = delete;
  CRun& operator=(const CRun&) = delete;

  int Call() {
    Pendrel::CRequest request;
    if (const int code = Build(request)) return code;
    if (const int code = Start()) return code;
    Pendrel::CResponse response;
    const std::string json = request.ToJsonString();
    Trace("> request", json);
    const EErrorCode code = m_handler.HandleRequest(request, response);
    if (code != CTolvane::Ok) return Failed("the request", code);
    TraceResponse(response);
    if (const int stopped = Interrupted()) return stopped;
    StopHandler();
    return Show(response);
  }

  int Info() {
    if (const int code = Start()) return code;
    CTolvane::CHandlerInfo info;
    Trace("> RequestHandlerInfo", "");
    if (const EErrorCode code = m_handler.RequestHandlerInfo(info)) {
      return Failed("RequestHandlerInfo", code);
    }
    Trace("< RequestHandlerInfo", "Name=" + Utf8FromWide(info.Name) +
                                      " Description=" + Utf8FromWide(info.Description) +
                                      " Version=" + Utf8FromWide(info.Version));
    unsigned int libVersion = 0;
    Trace("> RequestLibVersion", "");
    if (const EErrorCode code = m_handler.RequestLibVersion(libVersion)) {
      return Failed("RequestLibVersion", code);
    }
    Trace("< RequestLibVersion", "LibVersion=" + std::to_string(libVersion));
    unsigned long long inputFileSize = 0;
    Trace("> RequestInputFileSize", "");
    if (const EErrorCode code = m_handler.RequestInputFileSize(inputFileSize)) {
      return Failed("RequestInputFileSize", code);
    }
    Trace("< RequestInputFileSize", "InputFileSize=" + std::to_string(inputFileSize));
    if (const int stopped = Interrupted()) return stopped;
    StopHandler();
    Pendrel::CResponse findings = Findings();
    findings.Parameters[L"Name"] = info.Name;
    findings.Parameters[L"Description"] = info.Description;
    findings.Parameters[L"Version"] = info.Version;
    findings.Parameters[L"LibVersion"] = std::to_wstring(libVersion);
    findings.Parameters[L"InputFileSize"] = std::to_wstring(inputFileSize);
    return Show(findings);
  }

  int Task() {
    if (const int code = Start()) return code;
    const std::wstring code = WideFromUtf8(m_options.TaskCode);
    CTolvane::CHandlerTaskInfo info;
    Trace("> RequestHandlerTaskInfo&TaskCode=" + m_options.TaskCode, "");
    if (const EErrorCode error = m_handler.RequestHandlerTaskInfo(code, info)) {
      return Failed("RequestHandlerTaskInfo", error);
    }
    Trace("< RequestHandlerTaskInfo",
          "Name=" + Utf8FromWide(info.Name) + " Description=" + Utf8FromWide(info.Description));
    if (const int stopped = Interrupted()) return stopped;
    StopHandler();
    // The handler client takes a description only when it is whole, and says nothing else.
    if (info.Name.empty() && info.Description.empty()) {
      Write(m_err, "pendrel: the handler describes no task \"" + m_options.TaskCode + "\"\n");
    }
    Pendrel::CResponse findings = Findings();
    findings.Parameters[L"TaskCode"] = code;
    findings.Parameters[L"Name"] = info.Name;
    findings.Parameters[L"Description"] = info.Description;
    return Show(findings);
  }

  int Session() {
    Pendrel::CRequest request;
    if (const int code = Build(request)) return code;
    if (const int code = Start()) return code;
    Pendrel::CResponse opened;
    Trace("> OnCreateSession&SessionKey=" + m_options.SessionKey + "&User=" + m_options.User, "");
    const EErrorCode openCode = m_handler.OnCreateSession(
        WideFromUtf8(m_options.SessionKey), WideFromUtf8(m_options.User),
        WideFromUtf8(m_options.HandleTaskId), WideFromUtf8(m_options.HandlerCode),
        WideFromUtf8(m_options.HandlerTaskCode), WideFromUtf8(m_options.LogFileName),
        m_options.TaskTimeoutS, opened);
    if (openCode != CTolvane::Ok) return Failed("OnCreateSession", openCode);
    TraceResponse(opened);
    if (!m_options.Quiet) Write(m_err, "session opened: " + opened.ToCommonJsonString() + "\n");
    Pendrel::CResponse response;
    Trace("> request", request.ToJsonString());
    if (const EErrorCode code = m_handler.HandleRequest(request, response)) {
      return Failed("the request", code);
    }
    TraceResponse(response);
    if (const int stopped = Interrupted()) return stopped;
    // Only a handler that is still answering is told: the notice waits for the pipe.
    Trace("> OnCloseSession", "");
    m_handler.OnCloseSession();
    StopHandler();
    return Show(response);
  }

 private:
  int Build(Pendrel::CRequest& request) {
    const CRequestResult built = BuildRequest(m_options, request);
    if (built.ExitCode != kExitOk) Write(m_err, "pendrel: " + built.Error + "\n");
    return built.ExitCode;
  }

  std::string Handler() const { return "the handler \"" + m_options.Handler + "\""; }

  int Start() {
    m_holding.Hold();
    m_held = true;
    m_handlerOutput.Attach(m_handler);
    const EErrorCode code = m_handler.Start(WideFromUtf8(m_options.Handler), m_options.Mode,
                                            WideFromUtf8(m_options.ExtraArguments));
    m_handlerOutput.Started();
    m_holding.SetProcessId(m_handler.GetProcessId());
    if (const int stopped = Interrupted()) return stopped;
    if (code == CTolvane::Ok) return kExitOk;
    const Pendrel::CChannelFailure failure = m_handler.GetChannelFailure();
    std::string text;
    int exitCode = kExitUnavailable;
    switch (failure.Failure) {
      case Pendrel::EChannelFailure::LaunchFailed: {
        std::string why = SystemErrorText(failure.Code);
        if (IsFolder(m_options.Handler)) why = "it is a folder";
        text = "cannot start " + Handler() + ": " + why;
        break;
      }
      case Pendrel::EChannelFailure::OpenTimedOut:
        text = Handler() + " did not connect to its pipe within 10 s";
        exitCode = kExitTimeout;
        // It cannot be told to end through a pipe it never opened: it is killed at once.
        m_handler.StopGracePeriodMs = 0;
        break;
      case Pendrel::EChannelFailure::NoClient: {
        text = Handler() + " ended before it connected to its pipe";
        const std::string end = ExplainHandlerEnd(m_handler.GetHandlerExit(kEndWaitMs));
        if (!end.empty()) text += ": " + end;
        break;
      }
      default:
        text = "cannot start " + Handler() + ": " + ExplainChannelFailure(failure);
        break;
    }
    return Report(text, code, exitCode);
  }

  // Reports an exchange that failed, saying how the handler ended where it did.
  int Failed(const std::string& step, EErrorCode code) {
    if (const int stopped = Interrupted()) return stopped;
    std::string text;
    int exitCode = kExitSoftware;
    switch (code) {
      case CTolvane::ResponseTimeout:
        text = Handler() + " did not answer " + step + " within " +
               std::to_string(m_options.TimeoutS) + " s (--timeout); it was stopped";
        exitCode = kExitTimeout;
        break;
      case CTolvane::BadResponse:
        text = Handler() + " answered " + step + " with something that is not a response";
        break;
      case CTolvane::NotStarted:
        text = Handler() + " was not connected for " + step;
        break;
      default: {
        const Pendrel::CChannelFailure failure = m_handler.GetChannelFailure();
        text = Handler() + " failed during " + step + ": " + ExplainChannelFailure(failure);
        // A pipe that broke off is explained by how the handler ended; one that carried
        // something broken is the handler's doing while it lives.
        if (BrokeOff(failure)) {
          const std::string end = ExplainHandlerEnd(m_handler.GetHandlerExit(kEndWaitMs));
          if (!end.empty()) text += "; " + end;
        }
        break;
      }
    }
    return Report(text, code, exitCode);
  }

  int Report(const std::string& text, EErrorCode code, int exitCode) {
    StopHandler();
    Write(m_err, "pendrel: " + text + "\n");
    if (m_options.Verbose) {
      Write(m_err, "pendrel: the library said: error " + std::to_string(code) + " (" +
                       ErrorName(code) + ")");
      const std::string library = TrimEnd(Utf8FromWide(m_handler.GetResponseErrorMessage()));
      if (!library.empty()) Write(m_err, ": " + library);
      Write(m_err, "\n");
    }
    return exitCode;
  }

  // When a stop signal came: stops the handler, says so and returns 128 + the signal; else 0.
  int Interrupted() {
    const int signal = m_signals.Received();
    if (signal == 0) return 0;
    StopHandler();
    Write(m_err, "pendrel: stopped by " + SignalName(signal) + "; the handler was stopped\n");
    return kExitSignalBase + signal;
  }

  // Lets go of the handler and waits until its process has ended (it is killed once its grace
  // period has passed) and its output is through; the pipe's files are gone afterwards.
  void StopHandler() {
    if (!m_held) return;
    m_handler.Stop(m_handler.StopGracePeriodMs + kEndWaitMs);
    m_handlerOutput.Finish(kEndWaitMs);
    m_holding.Release();
    m_held = false;
  }

  void Trace(const std::string& what, const std::string& message) {
    if (!m_options.Verbose) return;
    std::string line = "pendrel: " + what;
    if (!message.empty()) {
      line += " (" + std::to_string(message.size()) + " bytes): " + message.substr(0, kShownBytes);
      if (message.size() > kShownBytes) line += " …";
    }
    Write(m_err, line + "\n");
  }

  void TraceResponse(const Pendrel::CResponse& response) {
    if (m_options.Verbose) Trace("< response, as read", response.ToJsonString());
  }

  int Show(const Pendrel::CResponse& response) {
    if (!m_options.Quiet) Write(m_err, ProgressLine(response.Progress));
    Write(m_out, RenderResponse(response, m_options.Output));
    // What follows on standard error comes after the response also when both share a pipe.
    if (const int code = FlushOutput(m_out, m_err)) return code;
    if (!m_options.SaveFolder.empty()) {
      std::string error;
      if (!SaveFiles(response, m_options.SaveFolder, error)) {
        Write(m_err, "pendrel: " + error + "\n");
        return kExitCantCreate;
      }
      const std::vector<std::string> names = SaveNames(response);
      for (std::size_t i = 0; i < names.size() && !m_options.Quiet; ++i) {
        Write(m_err, "saved: " + m_options.SaveFolder + "/" + names[i] + " (" +
                         std::to_string(response.Data[i].Data.size()) + " bytes)\n");
      }
      if (names.empty() && !m_options.Quiet) Write(m_err, "saved: the response holds no files\n");
    }
    if (m_options.Fail && response.Status == kErrorStatus) {
      Write(m_err, "pendrel: the handler answered with the error status 3 (--fail)\n");
      return kExitErrorResponse;
    }
    return kExitOk;
  }

 public:
  // Flushes `out`; on a write error says why on `err` and returns kExitIoError, else 0.
  static int FlushOutput(std::FILE* out, std::FILE* err) {
    errno = 0;
    if (std::fflush(out) == 0 && !std::ferror(out)) return 0;
    const int error = errno;
    Write(err, "pendrel: cannot write to standard output: " +
                   (error != 0 ? SystemErrorText(static_cast<std::uint32_t>(error))
                               : std::string("write error")) +
                   "\n");
    std::fflush(err);
    return kExitIoError;
  }

 private:
  const CCliOptions& m_options;
  std::FILE* m_out;
  std::FILE* m_err;
  CHolding& m_holding;
  const CStopSignals& m_signals;
  CHandlerOutput m_handlerOutput;
  bool m_held = false;
  // Declared last: destroyed (if StopHandler did not stop it) before what its output uses.
  CTolvane::CHandler m_handler;
};

int UsageError(const CParsedCommandLine& parsed, std::FILE* err) {
  std::string program = "pendrel";
  if (parsed.Options.Command != ECommand::None) {
    program += std::string(" ") + CommandName(parsed.Options.Command);
  }
  Write(err, program + ": " + parsed.Error + "\nTry '" + program + " --help'.\n");
  return kExitUsage;
}

int Run(const CCliOptions& options, std::FILE* out, std::FILE* err) {
  CHolding holding;
  // Before anything starts a thread: the signals are blocked in every thread but read here.
  const CStopSignals signals(
      [&holding, err](int signal) {
        return holding.OnSignal([&] {
          // Nothing of pendrel's is left to clean up: it ends at once.
          Write(err, "pendrel: stopped by " + SignalName(signal) + "\n");
          std::fflush(err);
          std::_Exit(kExitSignalBase + signal);
        });
      },
      CTolvane::CHandler().StopGracePeriodMs);
  CRun run(options, out, err, holding, signals);
  switch (options.Command) {
    case ECommand::Call:
      return run.Call();
    case ECommand::Info:
      return run.Info();
    case ECommand::Task:
      return run.Task();
    case ECommand::Session:
      return run.Session();
    case ECommand::None:
      break;
  }
  return kExitUsage;
}

}  // namespace

int RunCli(const std::vector<std::string>& arguments, std::FILE* out, std::FILE* err) {
  const CParsedCommandLine parsed = ParseCommandLine(arguments);
  int code = kExitOk;
  if (!parsed.Error.empty()) {
    code = UsageError(parsed, err);
  } else if (parsed.Options.ShowHelp) {
    Write(out, HelpText(parsed.Options.Command));
  } else if (parsed.Options.ShowVersion) {
    Write(out, std::string("pendrel ") + PENDREL_CLI_VERSION + " (record interface " +
                   std::to_string(Pendrel::Version) + ")\n");
  } else {
    code = Run(parsed.Options, out, err);
  }
  // A response already reported its own write error.
  if (code != kExitIoError) {
    if (const int outputCode = CRun::FlushOutput(out, err)) code = outputCode;
  }
  std::fflush(err);
  return code;
}

}  // namespace PendrelCli
