#include "handler_kit/HandlerMessages.h"

#include <iterator>  // std::size

#include "json/TextConversion.h"

namespace PendrelKit {
namespace {

namespace protocol = Pendrel::protocol;

// Each command's kind follows Request in EMessageKind, in the protocol's order.
constexpr EMessageKind KindOf(protocol::ECommand command) {
  return static_cast<EMessageKind>(static_cast<int>(command) + 1);
}
static_assert(KindOf(protocol::ECommand::HandlerInfo) == EMessageKind::HandlerInfo);
static_assert(KindOf(protocol::ECommand::CloseSession) == EMessageKind::CloseSession);
static_assert(static_cast<std::size_t>(EMessageKind::Unknown) == protocol::kCommandCount + 1);

std::string_view QueryOf(std::string_view message) {
  const std::size_t ampersand = message.find(protocol::kQuerySeparator);
  return ampersand == std::string_view::npos ? std::string_view() : message.substr(ampersand);
}

// Wholly decimal digits that fit 32 bits; 0 otherwise.
std::uint32_t ParseUnsigned32(std::wstring_view text) {
  if (text.empty()) return 0;
  std::uint64_t value = 0;
  for (wchar_t c : text) {
    if (c < L'0' || c > L'9') return 0;
    value = value * 10 + static_cast<std::uint64_t>(c - L'0');
    if (value > UINT32_MAX) return 0;
  }
  return static_cast<std::uint32_t>(value);
}

}  // namespace

EMessageKind ClassifyMessage(std::string_view message) {
  if (!message.empty() && message.front() == protocol::kRequestStart) return EMessageKind::Request;
  const std::string_view word = message.substr(0, message.find(protocol::kQuerySeparator));
  for (std::size_t i = 0; i < protocol::kCommandCount; ++i) {
    if (protocol::kCommandWords[i] == word) return KindOf(static_cast<protocol::ECommand>(i));
  }
  return EMessageKind::Unknown;
}

const char* CommandWord(EMessageKind kind) {
  const auto index = static_cast<std::size_t>(kind);
  if (index == 0 || index > protocol::kCommandCount) return "";
  // The protocol's words are literals, so each view ends in a zero byte.
  return protocol::kCommandWords[index - 1].data();
}

QueryPairs ParseQuery(std::string_view message) {
  QueryPairs pairs;
  std::string_view query = QueryOf(message);
  while (!query.empty()) {
    const std::size_t end = query.find(protocol::kQuerySeparator);
    const std::string_view piece = query.substr(0, end);
    query = end == std::string_view::npos ? std::string_view() : query.substr(end + 1);
    if (piece.empty()) continue;
    const std::size_t equals = piece.find(protocol::kQueryAssign);
    if (equals == std::string_view::npos) {
      pairs.emplace_back(Pendrel::Utf8ToUtf16(piece), std::wstring());
    } else {
      pairs.emplace_back(Pendrel::Utf8ToUtf16(piece.substr(0, equals)),
                         Pendrel::Utf8ToUtf16(piece.substr(equals + 1)));
    }
  }
  return pairs;
}

CSessionInfo ParseSessionInfo(std::string_view message) {
  CSessionInfo session;
  session.Pairs = ParseQuery(message);
  // One row per field, so that a key and the field it fills are named once.
  struct Field {
    protocol::EQueryKey key;
    std::wstring* value;
    bool seen;
  };
  std::wstring timeout;
  Field fields[] = {
      {protocol::EQueryKey::SessionKey, &session.SessionKey, false},
      {protocol::EQueryKey::User, &session.User, false},
      {protocol::EQueryKey::HandleTaskID, &session.HandleTaskID, false},
      {protocol::EQueryKey::HandlerCode, &session.HandlerCode, false},
      {protocol::EQueryKey::HandlerTaskCode, &session.HandlerTaskCode, false},
      {protocol::EQueryKey::LogFileName, &session.LogFileName, false},
      {protocol::EQueryKey::TaskTimeoutS, &timeout, false},
  };
  for (const auto& [key, value] : session.Pairs) {
    for (Field& field : fields) {
      if (!field.seen && key == protocol::QueryKey(field.key)) {
        field.seen = true;
        *field.value = value;
      }
    }
  }
  session.TaskTimeoutS = ParseUnsigned32(timeout);
  return session;
}

std::wstring ParseTaskCode(std::string_view message) {
  std::string taskCodeKey;
  protocol::AppendQueryPair(taskCodeKey, protocol::EQueryKey::TaskCode, "");
  const std::size_t start = message.find(taskCodeKey);
  if (start == std::string_view::npos) return std::wstring();
  return Pendrel::Utf8ToUtf16(message.substr(start + taskCodeKey.size()));
}

Pendrel::CResponse HandlerInfoAnswer(const CHandlerDescription& description) {
  Pendrel::CResponse response;
  response.Parameters[kNameKey] = description.Name;
  response.Parameters[kDescriptionKey] = description.Description;
  response.Parameters[kVersionKey] = description.Version;
  return response;
}

Pendrel::CResponse TaskInfoAnswer(const CTaskDescription& description) {
  Pendrel::CResponse response;
  response.Parameters[kNameKey] = description.Name;
  response.Parameters[kDescriptionKey] = description.Description;
  return response;
}

Pendrel::CResponse InputFileSizeAnswer(std::uint64_t size) {
  Pendrel::CResponse response;
  response.Parameters[kInputFileSizeKey] = std::to_wstring(size);
  return response;
}

Pendrel::CResponse LibVersionAnswer(unsigned int version) {
  Pendrel::CResponse response;
  response.Parameters[kLibVersionKey] = std::to_wstring(version);
  return response;
}

}  // namespace PendrelKit
