#include "handler_kit/CHandlerKit.h"

#include <algorithm>  // std::min
#include <chrono>
#include <condition_variable>
#include <cstdlib>  // std::_Exit
#include <exception>
#include <mutex>
#include <system_error>  // std::system_category
#include <thread>
#include <utility>

#include "base/Deadline.h"
#include "json/TextConversion.h"
#include "pipe/NamedPipeChannel.h"

namespace PendrelKit {
namespace {

using namespace std::chrono_literals;

// How soon Run tries again to open a pipe whose server end is not there yet.
constexpr auto kConnectRetryInterval = 20ms;
// Enough of an unknown message to recognise it in the error answer.
constexpr std::size_t kQuotedWordLimit = 64;

Pendrel::CResponse FailureAnswer(const char* what) {
  std::wstring message = L"The handler failed";
  if (what != nullptr && *what != '\0') message += L": " + Pendrel::Utf8ToUtf16(what);
  return Pendrel::CResponse(std::move(message));
}

// Writes `line` and a line end to `stream` (nothing when it is null), at once.
void Say(std::FILE* stream, const std::string& line) {
  if (stream == nullptr) return;
  std::fputs((line + "\n").c_str(), stream);
  std::fflush(stream);
}

}  // namespace

std::string NoConnectionText(const std::wstring& pipeName, std::uint32_t connectTimeMs,
                             const Pendrel::CChannelFailure& failure) {
  std::string text = "pendrel handler: cannot connect to the pipe \"" +
                     Pendrel::Utf16ToUtf8(pipeName) + "\" of its host within " +
                     std::to_string(connectTimeMs) + " ms";
  if (failure.Failure == Pendrel::EChannelFailure::OpenFailed && failure.Code != 0) {
    text += ": " + std::system_category().message(static_cast<int>(failure.Code));
  }
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == '.')) {
    text.pop_back();
  }
  return text + " (is the host still running? A handler is started by its host, e.g. pendrel)";
}

struct CHandlerKit::Impl {
  Pendrel::NamedPipeChannel channel;
  mutable std::mutex mutex;
  std::condition_variable stopped;   // notified when `stop` is set
  bool stop = false;                 // guarded by mutex; sticky
  std::wstring lastErrorText;        // guarded by mutex
  std::condition_variable finished;  // notified when `serving` is cleared
  bool serving = false;              // guarded by mutex; Run is taking messages

  bool StopRequested() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return stop;
  }

  // True once connected; false on time-out or Stop. The library's end may appear only after
  // the handler has started: there is nothing to wait on but the name, so it is tried again
  // at short intervals, and Stop ends the pause at once.
  bool Connect(const std::wstring& name, std::chrono::milliseconds timeout) {
    const Pendrel::base::Deadline deadline = Pendrel::base::DeadlineAfter(timeout);
    for (;;) {
      if (StopRequested()) return false;
      if (channel.Open(name, Pendrel::EPipeEnd::Client)) return true;
      if (Pendrel::base::Passed(deadline)) return false;
      std::unique_lock<std::mutex> lock(mutex);
      stopped.wait_for(lock, kConnectRetryInterval, [this] { return stop; });
    }
  }

  // The watcher: sees the end of the pipe while a callback runs. A callback still running
  // `grace` after the pipe has closed ends the process. Returns once Run stops serving.
  void Watch(std::chrono::milliseconds grace) {
    if (!channel.WaitForFailure()) return;  // Run is done
    std::unique_lock<std::mutex> lock(mutex);
    if (!finished.wait_for(lock, grace, [this] { return !serving; })) {
      std::_Exit(kExitCallbackOverran);
    }
  }

  // The next message for Run, taken off the channel by Run's own thread, which then answers
  // it: no hand-over between threads on the way. False once the pipe has ended (after the
  // messages that came before) or Stop was called.
  bool NextMessage(std::string& message) {
    if (StopRequested()) return false;
    return channel.WaitForMessage(message, std::chrono::milliseconds::max()) ==
           Pendrel::EWaitResult::Message;
  }

  void SetServing(bool value) {
    const std::lock_guard<std::mutex> lock(mutex);
    serving = value;
    if (!serving) finished.notify_all();
  }

  void SetLastErrorText(std::wstring text) {
    const std::lock_guard<std::mutex> lock(mutex);
    lastErrorText = std::move(text);
  }
};

CHandlerKit::CHandlerKit() : LibVersion(Pendrel::Version), m_impl(std::make_unique<Impl>()) {}

CHandlerKit::~CHandlerKit() = default;

int CHandlerKit::Run(const CHandlerArguments& arguments) {
  Impl& impl = *m_impl;
  if (impl.StopRequested()) return kExitPipeClosed;
  if (!impl.Connect(arguments.PipeName, std::chrono::milliseconds(ConnectTimeMs))) {
    if (!impl.StopRequested()) {
      Say(Diagnostics, NoConnectionText(arguments.PipeName, ConnectTimeMs, impl.channel.Failure()));
    }
    impl.SetLastErrorText(impl.channel.TakeErrorText());
    impl.channel.Close();
    return impl.StopRequested() ? kExitPipeClosed : kExitNoConnection;
  }
  impl.SetLastErrorText(std::wstring());
  if (OnConnected) {
    try {
      OnConnected();
    } catch (...) {
      // Nothing to answer yet; the conversation goes on.
    }
  }
  // Stop interrupts the wait for the next message; the channel is interrupted after the stop
  // flag is set, so a Stop that comes between the check and the wait still ends it. The
  // library ends a handler by closing the pipe: the channel's failure.
  impl.SetServing(true);
  std::thread watcher(
      [&impl, grace = std::chrono::milliseconds(CloseGracePeriodMs)] { impl.Watch(grace); });
  std::string message;
  while (impl.NextMessage(message)) Handle(message);
  impl.SetServing(false);
  impl.channel.InterruptWaits();  // a watcher still waiting (no failure) ends now
  watcher.join();
  impl.channel.Close();
  impl.SetLastErrorText(impl.channel.TakeErrorText());
  return kExitPipeClosed;
}

int CHandlerKit::Run(int argc, char** argv) {
  CHandlerArguments arguments;
  const EArgumentError error = ParseArguments(argc, argv, arguments);
  if (error != EArgumentError::None) {
    Say(Diagnostics, StartedByHandText(argc > 0 && argv[0] ? argv[0] : "", error));
    return kExitBadArguments;
  }
  return Run(arguments);
}

int CHandlerKit::Run(int argc, wchar_t** argv) {
  CHandlerArguments arguments;
  const EArgumentError error = ParseArguments(argc, argv, arguments);
  if (error != EArgumentError::None) {
    const std::wstring program = argc > 0 && argv[0] ? argv[0] : L"";
    Say(Diagnostics, StartedByHandText(Pendrel::Utf16ToUtf8(program), error));
    return kExitBadArguments;
  }
  return Run(arguments);
}

void CHandlerKit::Handle(std::string& message) {
  if (OnMessage) {
    EMessageAction action = EMessageAction::Dispatch;
    try {
      action = OnMessage(message);
    } catch (...) {
      // The message is still owed its answer.
    }
    if (action == EMessageAction::Consumed) return;
  }
  std::string answer;
  if (Answer(message, answer)) m_impl->channel.Post(std::move(answer));
}

bool CHandlerKit::Dispatch(const std::string& message, std::string& answer) {
  std::string text = message;
  return Answer(text, answer);
}

bool CHandlerKit::Answer(std::string& message, std::string& answer) {
  const EMessageKind kind = ClassifyMessage(message);
  if (kind == EMessageKind::CloseSession) {
    try {
      if (OnCloseSession) OnCloseSession();
    } catch (...) {
      // A notice without an answer: there is nobody to tell.
    }
    return false;
  }
  Pendrel::CResponse response;
  try {
    response = AnswerOf(kind, message);
  } catch (const std::exception& error) {
    response = FailureAnswer(error.what());
  } catch (...) {
    response = FailureAnswer(nullptr);
  }
  answer = response.ToJsonString();
  return true;
}

Pendrel::CResponse CHandlerKit::AnswerOf(EMessageKind kind, std::string& message) {
  switch (kind) {
    case EMessageKind::Request: {
      if (!OnRequest) return Pendrel::CResponse(std::wstring(L"This handler serves no requests"));
      Pendrel::CRequest request;
      request.FromJsonString(std::move(message));
      return OnRequest(request);
    }
    case EMessageKind::HandlerInfo:
      return OnHandlerInfo ? OnHandlerInfo() : HandlerInfoAnswer(Info);
    case EMessageKind::TaskInfo: {
      const std::wstring taskCode = ParseTaskCode(message);
      if (OnTaskInfo) return OnTaskInfo(taskCode);
      const auto task = Tasks.find(taskCode);
      if (task == Tasks.end()) return Pendrel::CResponse(L"Unknown task code: " + taskCode);
      return TaskInfoAnswer(task->second);
    }
    case EMessageKind::InputFileSize:
      return OnInputFileSize ? OnInputFileSize() : InputFileSizeAnswer(InputFileSize);
    case EMessageKind::LibVersion:
      return OnLibVersion ? OnLibVersion() : LibVersionAnswer(LibVersion);
    case EMessageKind::AllOutputFiles:
      return OnAllOutputFiles ? OnAllOutputFiles() : Pendrel::CResponse();
    case EMessageKind::CreateSession:
      return OnCreateSession ? OnCreateSession(ParseSessionInfo(message)) : Pendrel::CResponse();
    case EMessageKind::CloseSession:
    case EMessageKind::Unknown:
      break;
  }
  if (OnUnknownMessage) return OnUnknownMessage(message);
  const std::string word = message.substr(0, std::min(message.find('&'), kQuotedWordLimit));
  return Pendrel::CResponse(L"Unknown message: " + Pendrel::Utf8ToUtf16(word));
}

bool CHandlerKit::Post(std::string message) {
  if (!m_impl->channel.IsConnected()) return false;
  return m_impl->channel.Post(std::move(message));
}

void CHandlerKit::Stop() {
  Impl& impl = *m_impl;
  {
    const std::lock_guard<std::mutex> lock(impl.mutex);
    impl.stop = true;
    impl.stopped.notify_all();
  }
  impl.channel.InterruptWaits();
}

std::wstring CHandlerKit::LastErrorText() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->lastErrorText;
}

}  // namespace PendrelKit
