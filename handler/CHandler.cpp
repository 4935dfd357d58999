#include "handler/CHandler.h"

#include <atomic>
#include <utility>

#include "base/Deadline.h"
#include "handler/detail/CommandLine.h"
#include "handler/detail/HandlerSettings.h"
#include "handler/detail/HandlerState.h"
#include "json/TextConversion.h"
#include "pipe/detail/PipeTransport.h"

namespace CTolvane {
namespace {

using std::chrono::milliseconds;

// Names are random; a taken one (another handler's, or a squatter's) is simply skipped.
constexpr int kPipeNameAttempts = 16;

// The settings a Start takes: the thread's scoped ones, else the defaults.
detail::HandlerSettings& SettingsForStart(detail::HandlerSettings& defaults) {
  detail::HandlerSettings* scoped = detail::ThreadHandlerSettings();
  return scoped != nullptr ? *scoped : defaults;
}

// The next pipe name to try: one the settings name, else a random one.
std::wstring NextPipeName(detail::HandlerSettings& settings) {
  if (settings.pipeNames.empty()) return detail::MakePipeName();
  std::wstring name = std::move(settings.pipeNames.front());
  settings.pipeNames.pop_front();
  return name;
}

// A channel whose receive queue overflowed failed while no exchange waited; the next
// exchange reports that failure (ChannelError with its text) instead of NotStarted.
bool FailedByUnaskedMessages(const Pendrel::NamedPipeChannel& channel) {
  return channel.Failure() == Pendrel::CChannelFailure{Pendrel::EChannelFailure::ReadFailed,
                                                       Pendrel::kReceiveQueueFullCode};
}

}  // namespace

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
    : ResponseTimeoutS(other.ResponseTimeoutS),
      StopGracePeriodMs(other.StopGracePeriodMs),
      ChildOutput(other.ChildOutput),
      ChildOutputFile(other.ChildOutputFile),
      m_state(std::make_unique<State>(*other.m_state)) {}

CHandler& CHandler::operator=(const CHandler& other) {
  if (this == &other) return *this;
  auto state = std::make_unique<State>(*other.m_state);
  if (m_state) m_state->LetGo(StopGracePeriodMs);
  ResponseTimeoutS = other.ResponseTimeoutS;
  StopGracePeriodMs = other.StopGracePeriodMs;
  ChildOutput = other.ChildOutput;
  ChildOutputFile = other.ChildOutputFile;
  m_state = std::move(state);
  return *this;
}

CHandler::~CHandler() {
  if (m_state) m_state->LetGo(StopGracePeriodMs);
}

EErrorCode CHandler::Start(std::wstring path, int mode, const std::wstring& extraArguments) {
  State& state = *m_state;
  detail::HandlerSettings defaults;
  detail::HandlerSettings& settings = SettingsForStart(defaults);
  state.SetLogFolder(settings.logFolder);
  state.modeValue = mode;
  state.startTicks = Pendrel::base::MonotonicMs();
  state.startError = 0;
  // A handler started before is let go as the destructor does.
  state.LetGo(StopGracePeriodMs);

  auto connection = std::make_shared<detail::Connection>();
  Pendrel::NamedPipeChannel& channel = connection->channel;
  channel.SetTimeLimitMs(settings.channelTimeLimitMs);
  // The pipe exists before the handler starts, so the handler finds it at once and no
  // other program can take its name meanwhile.
  std::wstring pipeName;
  bool listening = false;
  for (int attempt = 0; attempt < kPipeNameAttempts && !listening; ++attempt) {
    pipeName = NextPipeName(settings);
    listening = channel.Listen(pipeName);
  }
  if (!listening) {
    const Pendrel::CChannelFailure failure = channel.Failure();
    if (failure.Failure == Pendrel::EChannelFailure::OpenFailed) state.startError = failure.Code;
    state.SetChannelFailure(failure);
    state.Fail(StartFailed);
    return StartFailed;
  }

  detail::ChildOptions options;
  options.output = ChildOutput;
  options.outputFile = ChildOutputFile;
  options.pipeFolder = Pendrel::detail::EndpointFolder();
  const std::uint32_t error = connection->child.Start(
      detail::BuildCommandLine(path, pipeName, mode, extraArguments),
      detail::BuildArgumentVector(path, pipeName, mode, extraArguments), options);
  if (error != 0) {
    state.startError = error;
    state.SetChannelFailure({Pendrel::EChannelFailure::LaunchFailed, error});
    state.Fail(StartFailed);
    return StartFailed;
  }

  // Only the process just started may connect, and its end stops the wait at once.
  channel.SetExpectedPeerProcessId(connection->child.Id());
  channel.SetOpenTimeLimitMs(settings.connectTimeLimitMs);
  connection->child.WatchExit([&channel] { channel.NotifyPeerExited(); });
  state.connection = connection;
  if (!channel.WaitForConnection()) {
    state.SetChannelFailure(channel.Failure());
    state.Fail(StartFailed);
    return StartFailed;
  }
  connection->started = true;
  return Ok;
}

EErrorCode CHandler::LastError() { return static_cast<EErrorCode>(m_state->lastError.load()); }

std::wstring CHandler::GetResponseErrorMessage() {
  const std::lock_guard<std::mutex> lock(m_state->textMutex);
  return m_state->responseErrorMessage;
}

Pendrel::CChannelFailure CHandler::GetChannelFailure() {
  const std::lock_guard<std::mutex> lock(m_state->textMutex);
  return m_state->channelFailure;
}

CHandlerExit CHandler::GetHandlerExit(std::uint32_t waitMs) {
  const std::shared_ptr<detail::Connection> connection = m_state->connection;
  if (!connection) return {};
  return connection->child.WaitForExit(milliseconds(waitMs));
}

CHandlerExit CHandler::Stop(std::uint32_t waitMs) {
  State& state = *m_state;
  if (!state.connection) return {};
  const auto waitForExit = state.connection->child.ExitWaiter();
  state.LetGo(StopGracePeriodMs);
  return waitForExit(milliseconds(waitMs));
}

std::uint32_t CHandler::GetProcessId() {
  const std::shared_ptr<detail::Connection> connection = m_state->connection;
  return connection ? connection->child.Id() : 0;
}

std::uint32_t CHandler::GetStartErrorNumber() { return m_state->startError; }

EErrorCode CHandler::HandleRequest(const Pendrel::CRequest& request, Pendrel::CResponse& response) {
  const std::shared_ptr<detail::Connection> connection = m_state->connection;
  if (connection) m_state->AdoptSharedFailure(*connection);
  if (!connection ||
      !(connection->channel.IsConnected() || FailedByUnaskedMessages(connection->channel))) {
    m_state->Fail(NotStarted);
    return NotStarted;
  }
  return DoRequest(request.ToJsonString(), response);
}

EErrorCode CHandler::DoRequest(const std::string& json, Pendrel::CResponse& response) {
  return DoRequest(std::string(json), response);
}

EErrorCode CHandler::DoRequest(std::string&& json, Pendrel::CResponse& response) {
  State& state = *m_state;
  // Held for the whole exchange: a copy of this handler may let go of the pipe meanwhile.
  const std::shared_ptr<detail::Connection> connection = state.connection;
  if (!connection || !connection->started) return NotStarted;
  state.AdoptSharedFailure(*connection);
  if (state.lastError != Ok) return static_cast<EErrorCode>(state.lastError.load());

  const std::lock_guard<std::mutex> lock(connection->requestLock);
  // An exchange that failed while this one waited for the lock, on this copy or another,
  // failed this one too: its answer may still come and must not be read as this one's.
  state.AdoptSharedFailure(*connection);
  if (state.lastError != Ok) return static_cast<EErrorCode>(state.lastError.load());
  Pendrel::NamedPipeChannel& channel = connection->channel;
  // The text itself goes into the channel's queue; a copy is kept only in the modes whose
  // transaction log would report it after a failure.
  const int mode = state.modeValue;
  std::string logged;
  if (mode >= 1 && mode <= 3) logged = json;

  // The limit is ResponseTimeoutS × 1000 as a signed 32-bit product (wrapping like the
  // 32-bit multiplication): a negative one times out at once.
  const std::int32_t limitMs =
      static_cast<std::int32_t>(static_cast<std::uint32_t>(ResponseTimeoutS) * 1000u);
  std::string answer;
  switch (channel.Ask(std::move(json), answer, milliseconds(limitMs > 0 ? limitMs : 0))) {
    case Pendrel::EWaitResult::Message:
      break;
    case Pendrel::EWaitResult::Error: {
      std::wstring text;
      const Pendrel::CChannelFailure failure = channel.TakeFailure(text);
      state.SetChannelFailure(failure, std::move(text));
      LogTransaction(logged, std::string());
      state.FailShared(*connection, ChannelError);
      return ChannelError;
    }
    case Pendrel::EWaitResult::Interrupted:  // nobody interrupts a handler's channel
    case Pendrel::EWaitResult::TimedOut:
      state.FailShared(*connection, ResponseTimeout);
      return ResponseTimeout;
  }
  if (!response.FromJsonString(std::move(answer))) {
    state.FailShared(*connection, BadResponse);
    return BadResponse;
  }
  return Ok;
}

}  // namespace CTolvane
