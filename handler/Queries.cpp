// The handler's queries and sessions: bare command words (some followed by a query string)
// sent through the same exchange as requests, with named values read from the answer.
#include <cwchar>  // std::wcstoull
#include <sstream>
#include <thread>

#include "handler/CHandler.h"
#include "handler/detail/HandlerState.h"
#include "json/TextConversion.h"

namespace CTolvane {
namespace {

using std::chrono::milliseconds;

// How long OnCloseSession waits for its notice to go out.
constexpr milliseconds kCloseFlushLimit{9990};

// The value under `key`, if the answer has one.
const std::wstring* Find(const Pendrel::CResponse& response, const wchar_t* key) {
  const auto it = response.Parameters.find(key);
  return it == response.Parameters.end() ? nullptr : &it->second;
}

}  // namespace

EErrorCode CHandler::RequestHandlerInfo(CHandlerInfo& info) {
  Pendrel::CResponse answer;
  const EErrorCode result = DoRequest("RequestHandlerInfo", answer);
  if (result != Ok) return result;
  const std::wstring* name = Find(answer, L"Name");
  const std::wstring* description = Find(answer, L"Description");
  const std::wstring* version = Find(answer, L"Version");
  if (name && description && version) {
    info.Name = *name;
    info.Description = *description;
    info.Version = *version;
  }
  return Ok;
}

EErrorCode CHandler::RequestHandlerTaskInfo(const std::wstring& taskCode, CHandlerTaskInfo& info) {
  Pendrel::CResponse answer;
  const EErrorCode result =
      DoRequest("RequestHandlerTaskInfo" + Pendrel::Utf16ToUtf8(L"&TaskCode=" + taskCode), answer);
  if (result != Ok) return result;
  const std::wstring* name = Find(answer, L"Name");
  const std::wstring* description = Find(answer, L"Description");
  if (name && description) {
    info.Name = *name;
    info.Description = *description;
  }
  return Ok;
}

EErrorCode CHandler::RequestInputFileSize(unsigned long long& size) {
  Pendrel::CResponse answer;
  const EErrorCode result = DoRequest("RequestInputFileSize", answer);
  if (result != Ok) return result;
  if (const std::wstring* text = Find(answer, L"InputFileSize")) {
    // Handlers have always been read with "%ull": an unsigned decimal (blanks and a sign
    // allowed, as the C library scans it) into the low 32 bits only; the high half keeps
    // its value. Scanned the same way on every platform.
    wchar_t* end = nullptr;
    const unsigned long long value = std::wcstoull(text->c_str(), &end, 10);
    if (end != text->c_str()) {
      size = (size & 0xFFFFFFFF00000000ull) | (value & 0xFFFFFFFFull);
    }
  }
  return Ok;
}

EErrorCode CHandler::RequestLibVersion(unsigned int& version) {
  Pendrel::CResponse answer;
  const EErrorCode result = DoRequest("RequestLibVersion", answer);
  if (result != Ok) return result;
  std::wistringstream text(answer.Parameters[L"LibVersion"]);
  text >> version;
  return Ok;
}

EErrorCode CHandler::RequestAllOutputFiles(Pendrel::CResponse& response) {
  return DoRequest("RequestAllOutputFiles", response);
}

EErrorCode CHandler::OnCreateSession(std::wstring sessionKey, std::wstring user,
                                     std::wstring handleTaskId, std::wstring handlerCode,
                                     std::wstring handlerTaskCode, std::wstring logFileName,
                                     long long taskTimeoutS, Pendrel::CResponse& response) {
  State& state = *m_state;
  {
    const std::lock_guard<std::mutex> lock(state.textMutex);
    state.SessionIdText = sessionKey;
  }
  state.StartTicks = detail::NowTicks();
  // Only the low 32 bits, as an unsigned number: handlers have always read it so.
  const std::wstring timeout = Pendrel::FormatWString(
      L"%u", static_cast<unsigned>(static_cast<unsigned long long>(taskTimeoutS)));
  // Values go out as they are: a "&" in one splits the query on the handler's side.
  const std::wstring query = L"&SessionKey=" + sessionKey + L"&User=" + user + L"&HandleTaskID=" +
                             handleTaskId + L"&HandlerCode=" + handlerCode + L"&HandlerTaskCode=" +
                             handlerTaskCode + L"&LogFileName=" + logFileName + L"&TaskTimeoutS=" +
                             timeout;
  return DoRequest("OnCreateSession" + Pendrel::Utf16ToUtf8(query), response);
}

void CHandler::OnCloseSession() {
  const std::shared_ptr<detail::Connection> connection = m_state->connection;
  if (!connection) return;
  Pendrel::NamedPipeChannel& channel = connection->channel;
  channel.Post("OnCloseSession");
  // An answer nobody has read yet means an exchange is still in the host's hands: give it
  // the response time limit to be taken before the notice is flushed.
  const milliseconds patience{static_cast<std::int64_t>(ResponseTimeoutS) * 1000};
  if (!channel.WaitUntilNothingReceived(patience)) return;
  channel.RequestFlush();
  channel.WaitForFlush(kCloseFlushLimit);
}

}  // namespace CTolvane
