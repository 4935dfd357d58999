// The handler's queries and sessions: bare command words (some followed by a query string)
// sent through the same exchange as requests, with named values read from the answer.
#include <cwchar>    // std::wcstoull
#include <iterator>  // std::size
#include <sstream>

#include "base/Deadline.h"
#include "handler/CHandler.h"
#include "handler/detail/HandlerState.h"
#include "json/TextConversion.h"
#include "protocol/HandlerProtocol.h"

namespace CTolvane {
namespace {

namespace protocol = Pendrel::protocol;
using protocol::EAnswerKey;
using protocol::ECommand;
using protocol::EQueryKey;
using std::chrono::milliseconds;

// How long OnCloseSession waits for its notice to go out: 999 steps of 10 ms.
constexpr milliseconds kCloseFlushLimit{9990};

// The value under `key`, if the answer has one.
const std::wstring* Find(const Pendrel::CResponse& response, EAnswerKey key) {
  const auto it = response.Parameters.find(protocol::AnswerKey(key));
  return it == response.Parameters.end() ? nullptr : &it->second;
}

std::string Word(ECommand command) { return std::string(protocol::CommandWord(command)); }

}  // namespace

EErrorCode CHandler::RequestHandlerInfo(CHandlerInfo& info) {
  Pendrel::CResponse answer;
  const EErrorCode result = DoRequest(Word(ECommand::HandlerInfo), answer);
  if (result != Ok) return result;
  const std::wstring* name = Find(answer, EAnswerKey::Name);
  const std::wstring* description = Find(answer, EAnswerKey::Description);
  const std::wstring* version = Find(answer, EAnswerKey::Version);
  if (name && description && version) {
    info.Name = *name;
    info.Description = *description;
    info.Version = *version;
  }
  return Ok;
}

EErrorCode CHandler::RequestHandlerTaskInfo(const std::wstring& taskCode, CHandlerTaskInfo& info) {
  Pendrel::CResponse answer;
  std::string message = Word(ECommand::TaskInfo);
  protocol::AppendQueryPair(message, EQueryKey::TaskCode, Pendrel::Utf16ToUtf8(taskCode));
  const EErrorCode result = DoRequest(std::move(message), answer);
  if (result != Ok) return result;
  const std::wstring* name = Find(answer, EAnswerKey::Name);
  const std::wstring* description = Find(answer, EAnswerKey::Description);
  if (name && description) {
    info.Name = *name;
    info.Description = *description;
  }
  return Ok;
}

EErrorCode CHandler::RequestInputFileSize(unsigned long long& size) {
  Pendrel::CResponse answer;
  const EErrorCode result = DoRequest(Word(ECommand::InputFileSize), answer);
  if (result != Ok) return result;
  if (const std::wstring* text = Find(answer, EAnswerKey::InputFileSize)) {
    // An unsigned decimal (leading blanks and a sign allowed, as the C library scans it)
    // into the low 32 bits only; the high half keeps its value. Scanned the same way on
    // every platform.
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
  const EErrorCode result = DoRequest(Word(ECommand::LibVersion), answer);
  if (result != Ok) return result;
  std::wistringstream text(answer.Parameters[protocol::AnswerKey(EAnswerKey::LibVersion)]);
  text >> version;
  return Ok;
}

EErrorCode CHandler::RequestAllOutputFiles(Pendrel::CResponse& response) {
  return DoRequest(Word(ECommand::AllOutputFiles), response);
}

EErrorCode CHandler::OnCreateSession(std::wstring sessionKey, std::wstring user,
                                     std::wstring handleTaskId, std::wstring handlerCode,
                                     std::wstring handlerTaskCode, std::wstring logFileName,
                                     long long taskTimeoutS, Pendrel::CResponse& response) {
  State& state = *m_state;
  {
    const std::lock_guard<std::mutex> lock(state.textMutex);
    state.sessionIdText = sessionKey;
  }
  state.startTicks = Pendrel::base::MonotonicMs();
  // Only the low 32 bits, as an unsigned number: what handlers read.
  const std::wstring timeout = Pendrel::FormatWString(
      L"%u", static_cast<unsigned>(static_cast<unsigned long long>(taskTimeoutS)));
  // Values go out as they are: a "&" in one splits the query on the handler's side.
  const std::wstring* const values[] = {&sessionKey,      &user,        &handleTaskId, &handlerCode,
                                        &handlerTaskCode, &logFileName, &timeout};
  static_assert(std::size(values) == std::size(protocol::kSessionKeys));
  std::string message = Word(ECommand::CreateSession);
  for (std::size_t i = 0; i < std::size(values); ++i) {
    protocol::AppendQueryPair(message, protocol::kSessionKeys[i], Pendrel::Utf16ToUtf8(*values[i]));
  }
  return DoRequest(std::move(message), response);
}

void CHandler::OnCloseSession() {
  const std::shared_ptr<detail::Connection> connection = m_state->connection;
  if (!connection) return;
  Pendrel::NamedPipeChannel& channel = connection->channel;
  channel.Post(Word(ECommand::CloseSession));
  // An answer nobody has read yet means an exchange is still in the host's hands: give it
  // the response time limit to be taken before the notice is flushed.
  const milliseconds patience{static_cast<std::int64_t>(ResponseTimeoutS) * 1000};
  if (!channel.WaitUntilNothingReceived(patience)) return;
  channel.RequestFlush();
  channel.WaitForFlush(kCloseFlushLimit);
}

}  // namespace CTolvane
