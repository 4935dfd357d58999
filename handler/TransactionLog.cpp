// The handler's side of the transaction log: the session and moment that name the files,
// and the record of a failed exchange handed to the writer (handler/detail/LogWriter.h).
#include <mutex>

#include "base/Deadline.h"
#include "handler/CHandler.h"
#include "handler/detail/HandlerState.h"
#include "handler/detail/LogWriter.h"

namespace CTolvane {

std::wstring CHandler::GetKesh2SessionID() {
  const std::lock_guard<std::mutex> lock(m_state->textMutex);
  return detail::SessionTag(m_state->sessionIdText);
}

std::wstring CHandler::GetKesh2SessionStartTime() {
  return detail::MomentTag(Pendrel::base::MonotonicMs() - m_state->startTicks);
}

void CHandler::LogTransaction(const std::string& request, const std::string& response) {
  detail::TransactionRecord record;
  record.mode = m_state->modeValue;
  if (record.mode < 1 || record.mode > 3) return;
  record.sessionTag = GetKesh2SessionID();
  record.momentTag = GetKesh2SessionStartTime();
  {
    const std::lock_guard<std::mutex> lock(m_state->textMutex);
    record.folder = m_state->logFolder;
  }
  detail::WriteTransactionLog(record, request, response);
}

}  // namespace CTolvane
