// pendrel_test_handler: the handler program the tests start. Built with the handler kit;
// its extra arguments choose how it behaves, down to breaking the protocol on purpose (see
// TestHandler.h for the arguments and its answers).
#include <algorithm>  // std::max
#include <chrono>
#include <cstdio>
#include <cstdlib>  // std::_Exit, std::abort
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "handler_kit/HandlerKit.h"
#include "json/TextConversion.h"
#include "tests/handler/test_handler/TestHandler.h"
#include "tests/handler/test_handler/TestHandlerOptions.h"
#include "tests/support/ForgedPacket.h"
#include "tests/support/PacketPipe.h"
#include "tests/support/TestProcess.h"

namespace pendrel_test {
namespace {

using namespace std::chrono_literals;
using PendrelKit::EMessageAction;
using PendrelKit::EMessageKind;

constexpr auto kNeverConnectSleep = 30s;
constexpr auto kConnectTime = 10s;
// How long --lying-header waits for the library to give up on the pipe.
constexpr auto kLyingHeaderWait = 60s;
// How long --hang-in-request's callback keeps the handler busy.
constexpr auto kHangInRequest = 60s;

class TestHandler {
 public:
  explicit TestHandler(TestHandlerOptions options) : m_options(std::move(options)) { Wire(); }

  int Run(const PendrelKit::CHandlerArguments& arguments) {
    if (m_options.crashMidAnswer || m_options.lyingHeader) return RunBroken(arguments.PipeName);
    return m_kit.Run(arguments);
  }

 private:
  void Wire() {
    m_kit.ConnectTimeMs = static_cast<std::uint32_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(kConnectTime).count());
    if (m_options.closeGraceMs) m_kit.CloseGracePeriodMs = *m_options.closeGraceMs;
    m_kit.OnConnected = [this] { Connected(); };
    m_kit.OnMessage = [this](const std::string& message) { return Received(message); };
    m_kit.OnRequest = [this](const Pendrel::CRequest& request) { return Echo(request); };
    m_kit.OnHandlerInfo = [this] {
      return Omitting(PendrelKit::HandlerInfoAnswer(m_options.info));
    };
    m_kit.OnTaskInfo = [this](const std::wstring& taskCode) {
      return Omitting(PendrelKit::TaskInfoAnswer({L"Task " + taskCode, L"Test task " + taskCode}));
    };
    m_kit.OnInputFileSize = [this] {
      return Omitting(Parameter(PendrelKit::kInputFileSizeKey, m_options.inputFileSize));
    };
    m_kit.OnLibVersion = [this] {
      return Omitting(Parameter(PendrelKit::kLibVersionKey, m_options.libVersion));
    };
    m_kit.OnAllOutputFiles = [this] {
      Pendrel::CResponse response;
      response.Data = m_outputFiles;
      return response;
    };
    m_kit.OnCreateSession = [this](const PendrelKit::CSessionInfo& session) {
      m_sessionKey = session.SessionKey;
      Pendrel::CResponse response;
      response.Session = session.SessionKey;
      // The first of duplicate keys, as the kit fills the session's fields.
      for (const auto& [key, value] : session.Pairs) response.Parameters.emplace(key, value);
      return response;
    };
    m_kit.OnCloseSession = [this] { m_sessionKey.clear(); };
  }

  void Connected() {
    for (unsigned k = 1; k <= m_options.flood; ++k) m_kit.Post(FloodMessage(k));
    if (m_options.exitAfter && *m_options.exitAfter == 0) m_kit.Stop();
  }

  // Everything that happens before the kit answers a message.
  EMessageAction Received(const std::string& message) {
    RecordAndDelay(message);
    ++m_received;
    if (m_options.exitAfter && m_received >= *m_options.exitAfter) m_kit.Stop();
    if (m_options.neverAnswer) return EMessageAction::Consumed;
    if (m_options.notJson) {
      if (PendrelKit::ClassifyMessage(message) != EMessageKind::CloseSession) {
        m_kit.Post(kNotJsonAnswer);
      }
      return EMessageAction::Consumed;
    }
    return EMessageAction::Dispatch;
  }

  void RecordAndDelay(const std::string& message) {
    if (!m_options.recordFile.empty()) {
      AppendRecordedMessage(std::filesystem::path(m_options.recordFile), message);
    }
    if (m_options.delayMs > 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(m_options.delayMs));
  }

  Pendrel::CResponse Echo(const Pendrel::CRequest& request) {
    if (m_options.abortOnRequest) std::abort();
    if (m_options.hangInRequest) {
      std::this_thread::sleep_for(kHangInRequest);
      std::_Exit(kExitLifetime);
    }
    Pendrel::CResponse response;
    response.Session = m_sessionKey;
    response.Parameters = request.RequestParams;
    for (const auto& [key, value] : request.CommandParams) {
      response.Parameters[L"CommandParam." + key] = value;
    }
    response.Parameters[L"Command"] = request.Command;
    response.Parameters[L"CommandAtribute"] = request.CommandAtribute;
    response.Data = request.InputData;
    if (!m_options.reportEnv.empty()) {
      const std::optional<std::string> value =
          EnvironmentValue(Pendrel::Utf16ToUtf8(m_options.reportEnv));
      response.Parameters[L"Env"] = value ? Pendrel::Utf8ToUtf16(*value) : kUnsetEnvironmentValue;
    }
    m_outputFiles.insert(m_outputFiles.end(), request.InputData.begin(), request.InputData.end());
    return response;
  }

  static Pendrel::CResponse Parameter(const wchar_t* key, const std::wstring& value) {
    Pendrel::CResponse response;
    response.Parameters[key] = value;
    return response;
  }

  Pendrel::CResponse Omitting(Pendrel::CResponse response) const {
    for (const std::wstring& key : m_options.omit) response.Parameters.erase(key);
    return response;
  }

  // --crash-mid-answer and --lying-header: the messages before the broken one are answered
  // as usual, over the bare transport.
  int RunBroken(const std::wstring& pipeName) {
    PacketPipe pipe;
    if (!pipe.Connect(pipeName, kConnectTime)) return kExitNoConnection;
    std::string message;
    for (unsigned index = 1; pipe.ReadMessage(message); ++index) {
      RecordAndDelay(message);
      std::string answer;
      const bool answered = m_kit.Dispatch(message, answer);
      if (index < m_options.brokenAt) {
        if (answered && !pipe.WriteMessage(answer)) break;
        continue;
      }
      if (m_options.crashMidAnswer) {
        // Blanks after the document keep it valid JSON, should it ever arrive whole.
        const std::size_t packets = *m_options.crashMidAnswer;
        answer.resize(std::max(answer.size(), packets * pipe.PayloadRoom() + 1), ' ');
        pipe.WritePackets(answer, packets);
        // No clean-up and no closing message: the process is simply gone.
        std::_Exit(kExitCrashed);
      }
      // A payload as long as the whole packet: 8 bytes more than the packet holds.
      pipe.WritePacket(ForgedPacket(0, pipe.PacketSize(), std::string(pipe.PacketSize(), 'x'),
                                    pipe.PacketSize()));
      pipe.WaitForEnd(kLyingHeaderWait);
      break;
    }
    return kExitNormal;
  }

  TestHandlerOptions m_options;
  PendrelKit::CHandlerKit m_kit;
  std::wstring m_sessionKey;
  std::vector<Pendrel::CMimeFile> m_outputFiles;
  unsigned m_received = 0;
};

int Main() {
  PendrelKit::CHandlerArguments arguments;
  const PendrelKit::EArgumentError error =
      PendrelKit::ParseArguments(PendrelKit::ProcessArguments(), arguments);
  if (error != PendrelKit::EArgumentError::None) {
    std::fprintf(stderr, "pendrel_test_handler: %s\n", PendrelKit::ArgumentErrorText(error));
    return kExitBadArguments;
  }
  TestHandlerOptions options;
  std::wstring problem;
  if (!ParseTestHandlerOptions(arguments.ExtraArguments, options, problem)) {
    std::fprintf(stderr, "pendrel_test_handler: %s\n", Pendrel::Utf16ToUtf8(problem).c_str());
    return kExitBadArguments;
  }
  if (options.lifetimeMs > 0) {
    std::thread([limit = std::chrono::milliseconds(options.lifetimeMs)] {
      std::this_thread::sleep_for(limit);
      std::_Exit(kExitLifetime);
    }).detach();
  }
  if (!options.pidFile.empty()) {
    std::ofstream(std::filesystem::path(options.pidFile)) << OwnProcessId() << '\n';
  }
  if (!options.print.empty()) {
    const std::string text = Pendrel::Utf16ToUtf8(options.print);
    std::fprintf(stdout, "out:%s\n", text.c_str());
    std::fflush(stdout);
    std::fprintf(stderr, "err:%s\n", text.c_str());
    std::fflush(stderr);
  }
  const int normal = options.exitCode ? static_cast<int>(*options.exitCode) : kExitNormal;
  if (options.exitBeforeConnect) return normal;
  if (options.neverConnect) {
    std::this_thread::sleep_for(kNeverConnectSleep);
    return normal;
  }
  const std::filesystem::path doneFile(options.doneFile);
  TestHandler handler(std::move(options));
  const int code = handler.Run(arguments);
  if (!doneFile.empty()) std::ofstream(doneFile) << code << '\n';
  return code == kExitNormal ? normal : code;
}

}  // namespace
}  // namespace pendrel_test

int main() { return pendrel_test::Main(); }
