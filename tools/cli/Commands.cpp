#include "tools/cli/Commands.h"

#include <string_view>

#include "handler/CHandler.h"
#include "message/CRequest.h"
#include "message/CResponse.h"
#include "tools/cli/ExitCodes.h"
#include "tools/cli/Options.h"
#include "tools/cli/Output.h"
#include "tools/cli/Requests.h"
#include "tools/cli/Text.h"

namespace PendrelCli {
namespace {

using CTolvane::EErrorCode;

struct CErrorName {
  EErrorCode Code;
  const char* Name;
  const char* Meaning;  // said when the pipe gave no error text of its own
};

constexpr CErrorName kErrorNames[] = {
    {CTolvane::Ok, "Ok", "no error"},
    {CTolvane::ChannelError, "ChannelError", "the pipe failed"},
    {CTolvane::ResponseTimeout, "ResponseTimeout", "no answer in time"},
    {CTolvane::BadResponse, "BadResponse", "the answer could not be read"},
    {CTolvane::NotStarted, "NotStarted", "the handler is not connected"},
    {CTolvane::StartFailed, "StartFailed", "the handler could not be started or did not connect"},
};

const CErrorName& ErrorName(EErrorCode code) {
  for (const CErrorName& entry : kErrorNames) {
    if (entry.Code == code) return entry;
  }
  return kErrorNames[0];
}

void Write(std::FILE* stream, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stream);
}

// Status 0: what pendrel reports of a query that went well.
Pendrel::CResponse Findings() { return Pendrel::CResponse(static_cast<Pendrel::EStatus>(0)); }

// One run of a command: its options, the handler it drives and the two output streams.
class CRun {
 public:
  CRun(const CCliOptions& options, std::FILE* out, std::FILE* err)
      : m_options(options), m_out(out), m_err(err) {
    m_handler.ResponseTimeoutS = options.TimeoutS;
  }
  // A handler ends with its host: pendrel lets go of it and gives it its grace period to end
  // by itself (acting on a closing notice, say) before pendrel itself ends.
  ~CRun() { m_handler.Stop(m_handler.StopGracePeriodMs); }
  CRun(const CRun&) = delete;
  CRun& operator=(const CRun&) = delete;

  int Call() {
    Pendrel::CRequest request;
    if (const int code = Build(request)) return code;
    if (const EErrorCode code = Start()) return Failed(StartStep(), code);
    Pendrel::CResponse response;
    if (const EErrorCode code = m_handler.HandleRequest(request, response)) {
      return Failed("the request", code);
    }
    return Show(response);
  }

  int Info() {
    if (const EErrorCode code = Start()) return Failed(StartStep(), code);
    CTolvane::CHandlerInfo info;
    if (const EErrorCode code = m_handler.RequestHandlerInfo(info)) {
      return Failed("RequestHandlerInfo", code);
    }
    unsigned int libVersion = 0;
    if (const EErrorCode code = m_handler.RequestLibVersion(libVersion)) {
      return Failed("RequestLibVersion", code);
    }
    unsigned long long inputFileSize = 0;
    if (const EErrorCode code = m_handler.RequestInputFileSize(inputFileSize)) {
      return Failed("RequestInputFileSize", code);
    }
    Pendrel::CResponse findings = Findings();
    findings.Parameters[L"Name"] = info.Name;
    findings.Parameters[L"Description"] = info.Description;
    findings.Parameters[L"Version"] = info.Version;
    findings.Parameters[L"LibVersion"] = std::to_wstring(libVersion);
    findings.Parameters[L"InputFileSize"] = std::to_wstring(inputFileSize);
    return Show(findings);
  }

  int Task() {
    if (const EErrorCode code = Start()) return Failed(StartStep(), code);
    const std::wstring code = WideFromUtf8(m_options.TaskCode);
    CTolvane::CHandlerTaskInfo info;
    if (const EErrorCode error = m_handler.RequestHandlerTaskInfo(code, info)) {
      return Failed("RequestHandlerTaskInfo", error);
    }
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
    if (const EErrorCode code = Start()) return Failed(StartStep(), code);
    Pendrel::CResponse opened;
    const EErrorCode openCode = m_handler.OnCreateSession(
        WideFromUtf8(m_options.SessionKey), WideFromUtf8(m_options.User),
        WideFromUtf8(m_options.HandleTaskId), WideFromUtf8(m_options.HandlerCode),
        WideFromUtf8(m_options.HandlerTaskCode), WideFromUtf8(m_options.LogFileName),
        m_options.TaskTimeoutS, opened);
    if (openCode != CTolvane::Ok) return Failed("OnCreateSession", openCode);
    Write(m_err, "session opened: " + opened.ToCommonJsonString() + "\n");
    Pendrel::CResponse response;
    if (const EErrorCode code = m_handler.HandleRequest(request, response)) {
      return Failed("the request", code);
    }
    // Only a handler that is still answering is told: the notice waits for the pipe.
    m_handler.OnCloseSession();
    return Show(response);
  }

 private:
  int Build(Pendrel::CRequest& request) {
    const CRequestResult built = BuildRequest(m_options, request);
    if (built.ExitCode != kExitOk) Write(m_err, "pendrel: " + built.Error + "\n");
    return built.ExitCode;
  }

  EErrorCode Start() {
    return m_handler.Start(WideFromUtf8(m_options.Handler), m_options.Mode,
                           WideFromUtf8(m_options.ExtraArguments));
  }

  std::string StartStep() const { return "starting \"" + m_options.Handler + "\""; }

  // Reports a failed step with the error code and the pipe's text, and returns the code as
  // the exit code.
  int Failed(const std::string& step, EErrorCode code) {
    const CErrorName& name = ErrorName(code);
    std::string text = TrimEnd(Utf8FromWide(m_handler.GetResponseErrorMessage()));
    if (text.empty()) text = name.Meaning;
    Write(m_err, "pendrel: " + step + " failed with error " + std::to_string(code) + " (" +
                     name.Name + "): " + text + "\n");
    return static_cast<int>(code);
  }

  int Show(const Pendrel::CResponse& response) {
    Write(m_err, ProgressLine(response.Progress));
    Write(m_out, RenderResponse(response, m_options.Output));
    // What follows on standard error comes after the response also when both share a pipe.
    std::fflush(m_out);
    if (m_options.SaveFolder.empty()) return kExitOk;
    std::string error;
    if (!SaveFiles(response, m_options.SaveFolder, error)) {
      Write(m_err, "pendrel: " + error + "\n");
      return kExitCantCreate;
    }
    const std::vector<std::string> names = SaveNames(response);
    for (std::size_t i = 0; i < names.size(); ++i) {
      Write(m_err, "saved: " + m_options.SaveFolder + "/" + names[i] + " (" +
                       std::to_string(response.Data[i].Data.size()) + " bytes)\n");
    }
    if (names.empty()) Write(m_err, "saved: the response holds no files\n");
    return kExitOk;
  }

  const CCliOptions& m_options;
  std::FILE* m_out;
  std::FILE* m_err;
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
  CRun run(options, out, err);
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
  std::fflush(out);
  std::fflush(err);
  return code;
}

}  // namespace PendrelCli
