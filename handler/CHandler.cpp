#include "handler/CHandler.h"

#include <atomic>
#include <utility>

#include "handler/detail/CommandLine.h"
#include "handler/detail/HandlerState.h"
#include "handler/detail/TestSeams.h"
#include "json/TextConversion.h"

namespace CTolvane {
namespace {

using std::chrono::milliseconds;

// Names are random; a taken one (another handler's, or a squatter's) is simply skipped.
constexpr int kPipeNameAttempts = 16;

constexpr wchar_t kLaunchFailedText[] = L"Ошибка запуска обработчика";

std::atomic<std::uint32_t> g_startConnectTimeLimitMs{10000};
std::atomic<std::uint32_t> g_channelTimeLimitMs{Pendrel::NamedPipeChannel::kDefaultTimeLimitMs};

}  // namespace

namespace detail {
std::uint32_t StartConnectTimeLimitMs() { return g_startConnectTimeLimitMs; }
void SetStartConnectTimeLimitMs(std::uint32_t milliseconds) {
  g_startConnectTimeLimitMs = milliseconds;
}
std::uint32_t ChannelTimeLimitMs() { return g_channelTimeLimitMs; }
void SetChannelTimeLimitMs(std::uint32_t milliseconds) { g_channelTimeLimitMs = milliseconds; }
}  // namespace detail

CHandlerInfo::CHandlerInfo() = default;
CHandlerInfo::CHandlerInfo(const CHandlerInfo& other) = default;
CHandlerInfo::CHandlerInfo(CHandlerInfo&& other) noexcept = default;
CHandlerInfo& CHandlerInfo::operator=(const CHandlerInfo& other) = default;
CHandlerInfo& CHandlerInfo::operator=(CHandlerInfo&& other) noexcept = default;
CHandlerInfo::~CHandlerInfo() = default;

CHandlerTaskInfo::CHandlerTaskInfo() = default;
CHandlerTaskInfo::CHandlerTaskInfo(const CHandlerTaskInfo& other) = default;
CHandlerTaskInfo::CHandlerTaskInfo(CHandlerTaskInfo&& other) noexcept = default;
CHandlerTaskInfo& CHandlerTaskInfo::operator=(const CHandlerTaskInfo& other) = default;
CHandlerTaskInfo& CHandlerTaskInfo::operator=(CHandlerTaskInfo&& other) noexcept = default;
CHandlerTaskInfo::~CHandlerTaskInfo() = default;

CHandler::CHandler() : m_state(std::make_unique<State>()) {}

CHandler::CHandler(const CHandler& other)
    : ResponseTimeoutS(other.ResponseTimeoutS), m_state(std::make_unique<State>(*other.m_state)) {}

CHandler& CHandler::operator=(const CHandler& other) {
  if (this == &other) return *this;
  ResponseTimeoutS = other.ResponseTimeoutS;
  m_state = std::make_unique<State>(*other.m_state);
  return *this;
}

CHandler::~CHandler() = default;

EErrorCode CHandler::Start(std::wstring path, int mode, const std::wstring& extraArguments) {
  State& state = *m_state;
  state.ModeValue = mode;
  state.StartTicks = detail::NowTicks();
  // A handler started before is let go; its pipe closes with its last owner.
  state.connection.reset();

  auto connection = std::make_shared<detail::Connection>();
  Pendrel::NamedPipeChannel& channel = connection->channel;
  channel.SetTimeLimitMs(detail::ChannelTimeLimitMs());
  // The pipe exists before the handler starts, so the handler finds it at once and no
  // other program can take its name meanwhile.
  std::wstring pipeName;
  bool listening = false;
  for (int attempt = 0; attempt < kPipeNameAttempts && !listening; ++attempt) {
    pipeName = detail::MakePipeName();
    listening = channel.Listen(pipeName);
  }
  if (!listening) {
    state.SetErrorMessage(channel.ErrorText());
    state.Fail(StartFailed);
    return StartFailed;
  }

  const std::uint32_t error =
      connection->child.Start(detail::BuildCommandLine(path, pipeName, mode, extraArguments),
                              detail::BuildArgumentVector(path, pipeName, mode, extraArguments));
  if (error != 0) {
    state.SetErrorMessage(Pendrel::FormatWString(L"%ls #%u\n", kLaunchFailedText, error));
    state.Fail(StartFailed);
    return StartFailed;
  }

  // Only the process just started may connect, and its end stops the wait at once.
  channel.SetExpectedPeerProcessId(connection->child.Id());
  channel.SetOpenTimeLimitMs(detail::StartConnectTimeLimitMs());
  connection->child.WatchExit([&channel] { channel.NotifyPeerExited(); });
  state.connection = connection;
  if (!channel.WaitForConnection()) {
    state.SetErrorMessage(channel.ErrorText());
    state.Fail(StartFailed);
    return StartFailed;
  }
  connection->requestLock = std::make_unique<std::mutex>();
  return Ok;
}

EErrorCode CHandler::LastError() { return static_cast<EErrorCode>(m_state->lastError.load()); }

std::wstring CHandler::GetResponseErrorMessage() {
  const std::lock_guard<std::mutex> lock(m_state->textMutex);
  return m_state->ResponseErrorMessage;
}

EErrorCode CHandler::HandleRequest(const Pendrel::CRequest& request, Pendrel::CResponse& response) {
  const std::shared_ptr<detail::Connection> connection = m_state->connection;
  if (!connection || !connection->channel.IsConnected()) {
    m_state->Fail(NotStarted);
    return NotStarted;
  }
  return DoRequest(request.ToJsonString(), response);
}

EErrorCode CHandler::DoRequest(std::string json, Pendrel::CResponse& response) {
  State& state = *m_state;
  // Held for the whole exchange: a copy of this handler may let go of the pipe meanwhile.
  const std::shared_ptr<detail::Connection> connection = state.connection;
  if (!connection || !connection->requestLock) return NotStarted;
  if (state.lastError != Ok) return static_cast<EErrorCode>(state.lastError.load());

  const std::lock_guard<std::mutex> lock(*connection->requestLock);
  // An exchange that failed while this one waited for the lock failed the handler too.
  if (state.lastError != Ok) return static_cast<EErrorCode>(state.lastError.load());
  Pendrel::NamedPipeChannel& channel = connection->channel;
  // The text itself goes into the channel's queue; a copy is kept only in the modes whose
  // transaction log would report it after a failure.
  const int mode = state.ModeValue;
  std::string logged;
  if (mode >= 1 && mode <= 3) logged = json;
  channel.Post(std::move(json));

  // The product is formed in 32 bits, as it always has been.
  const std::uint32_t limitMs = static_cast<std::uint32_t>(ResponseTimeoutS) * 1000u;
  std::string answer;
  switch (channel.WaitForMessage(answer, milliseconds(limitMs))) {
    case Pendrel::EWaitResult::Message:
      break;
    case Pendrel::EWaitResult::Error:
      state.SetErrorMessage(channel.TakeErrorText());
      LogTransaction(logged, std::string());
      state.Fail(ChannelError);
      return ChannelError;
    case Pendrel::EWaitResult::TimedOut:
      state.Fail(ResponseTimeout);
      return ResponseTimeout;
  }
  if (!response.FromJsonString(std::move(answer))) {
    state.Fail(BadResponse);
    return BadResponse;
  }
  return Ok;
}

}  // namespace CTolvane
