#include "handler_kit/HandlerMessages.h"

#include <iterator>  // std::size

#include "json/TextConversion.h"

namespace PendrelKit {
namespace {

struct CommandWordEntry {
  EMessageKind kind;
  std::string_view word;
};

// Request and Unknown have no word; their rows keep the table indexed by the enum.
constexpr CommandWordEntry kCommandWords[] = {
    {EMessageKind::Request, ""},
    {EMessageKind::HandlerInfo, "RequestHandlerInfo"},
    {EMessageKind::TaskInfo, "RequestHandlerTaskInfo"},
    {EMessageKind::InputFileSize, "RequestInputFileSize"},
    {EMessageKind::LibVersion, "RequestLibVersion"},
    {EMessageKind::AllOutputFiles, "RequestAllOutputFiles"},
    {EMessageKind::CreateSession, "OnCreateSession"},
    {EMessageKind::CloseSession, "OnCloseSession"},
    {EMessageKind::Unknown, ""},
};

constexpr bool WordsAreInEnumOrder() {
  for (std::size_t i = 0; i < std::size(kCommandWords); ++i) {
    if (static_cast<std::size_t>(kCommandWords[i].kind) != i) return false;
  }
  return true;
}
static_assert(WordsAreInEnumOrder(), "kCommandWords is indexed by EMessageKind");

constexpr std::string_view kTaskCodeKey = "&TaskCode=";

std::string_view QueryOf(std::string_view message) {
  const std::size_t ampersand = message.find('&');
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
  if (!message.empty() && message.front() == '{') return EMessageKind::Request;
  const std::string_view word = message.substr(0, message.find('&'));
  for (const CommandWordEntry& entry : kCommandWords) {
    if (!entry.word.empty() && entry.word == word) return entry.kind;
  }
  return EMessageKind::Unknown;
}

const char* CommandWord(EMessageKind kind) {
  const auto index = static_cast<std::size_t>(kind);
  // The table's words are literals, so each view ends in a zero byte.
  return index < std::size(kCommandWords) ? kCommandWords[index].word.data() : "";
}

QueryPairs ParseQuery(std::string_view message) {
  QueryPairs pairs;
  std::string_view query = QueryOf(message);
  while (!query.empty()) {
    const std::size_t end = query.find('&');
    const std::string_view piece = query.substr(0, end);
    query = end == std::string_view::npos ? std::string_view() : query.substr(end + 1);
    if (piece.empty()) continue;
    const std::size_t equals = piece.find('=');
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
    const wchar_t* key;
    std::wstring* value;
    bool seen;
  };
  std::wstring timeout;
  Field fields[] = {
      {L"SessionKey", &session.SessionKey, false},
      {L"User", &session.User, false},
      {L"HandleTaskID", &session.HandleTaskID, false},
      {L"HandlerCode", &session.HandlerCode, false},
      {L"HandlerTaskCode", &session.HandlerTaskCode, false},
      {L"LogFileName", &session.LogFileName, false},
      {L"TaskTimeoutS", &timeout, false},
  };
  for (const auto& [key, value] : session.Pairs) {
    for (Field& field : fields) {
      if (!field.seen && key == field.key) {
        field.seen = true;
        *field.value = value;
      }
    }
  }
  session.TaskTimeoutS = ParseUnsigned32(timeout);
  return session;
}

std::wstring ParseTaskCode(std::string_view message) {
  const std::size_t start = message.find(kTaskCodeKey);
  if (start == std::string_view::npos) return std::wstring();
  return Pendrel::Utf8ToUtf16(message.substr(start + kTaskCodeKey.size()));
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
