// The messages the library sends a handler, and the answers it reads back, as a handler
// sees them. The words and keys themselves are the protocol's (protocol/HandlerProtocol.h):
//   RequestHandlerInfo                       answer Parameters "Name", "Description", "Version"
//   RequestHandlerTaskInfo&TaskCode=<code>   answer Parameters "Name", "Description"
//   RequestInputFileSize                     answer Parameters "InputFileSize" (decimal)
//   RequestLibVersion                        answer Parameters "LibVersion" (decimal)
//   RequestAllOutputFiles                    an answer with files
//   OnCreateSession&SessionKey=…&User=…&HandleTaskID=…&HandlerCode=…&HandlerTaskCode=…
//       &LogFileName=…&TaskTimeoutS=…        an answer
//   OnCloseSession                           no answer
// A request is its JSON document (starting with "{"). Every other message gets exactly one
// answer, a CResponse in its full JSON form; the library matches answers to messages by
// order alone.
//
// Everything here is a pure function of its input; any thread may call it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "message/CResponse.h"
#include "protocol/HandlerProtocol.h"

namespace PendrelKit {

// A request, one kind per command word of the protocol (same names, same order), or none.
enum class EMessageKind {
  Request,  // a request's JSON document
  PENDREL_PROTOCOL_COMMANDS(PENDREL_PROTOCOL_ENUMERATOR) Unknown,
};

// A request when `message` starts with "{"; otherwise the kind whose command word equals
// the text before the first "&" (the whole message without one), compared exactly; Unknown
// for anything else, the empty message included.
EMessageKind ClassifyMessage(std::string_view message);

// The command word of `kind` ("RequestHandlerInfo" …); "" for Request and Unknown.
const char* CommandWord(EMessageKind kind);

using QueryPairs = std::vector<std::pair<std::wstring, std::wstring>>;

// The query text of a message (from its first "&" on; "" without one) split into key/value
// pairs in order: at every "&" (empty pieces are skipped), each piece at its first "="
// (a piece without one is a key with an empty value). Keys and values are converted from
// UTF-8 and not unescaped. A value holding "&" therefore splits, as the library sends it.
QueryPairs ParseQuery(std::string_view message);

// What "OnCreateSession&…" tells the handler. Each field holds the value of the first pair
// with its name (exact, case-sensitive), empty when there is none.
struct CSessionInfo {
  std::wstring SessionKey;
  std::wstring User;
  std::wstring HandleTaskID;
  std::wstring HandlerCode;
  std::wstring HandlerTaskCode;
  std::wstring LogFileName;
  // Read as an unsigned decimal number (the library sends the low 32 bits of the host's
  // value); 0 when the text is not wholly digits or does not fit.
  std::uint32_t TaskTimeoutS = 0;
  QueryPairs Pairs;  // every pair of the query, in order, duplicates and unknown keys kept
};

// Reads the query of `message` (see ParseQuery) into a CSessionInfo.
CSessionInfo ParseSessionInfo(std::string_view message);

// The task code of "RequestHandlerTaskInfo&TaskCode=<code>": all the text after the first
// "&TaskCode=", converted from UTF-8 and taken whole ("&" and "=" included, since the
// library does not escape them); empty when the message holds no "&TaskCode=".
std::wstring ParseTaskCode(std::string_view message);

// The Parameters keys the library reads from the answers to the queries.
inline constexpr const wchar_t* kNameKey =
    Pendrel::protocol::AnswerKey(Pendrel::protocol::EAnswerKey::Name);
inline constexpr const wchar_t* kDescriptionKey =
    Pendrel::protocol::AnswerKey(Pendrel::protocol::EAnswerKey::Description);
inline constexpr const wchar_t* kVersionKey =
    Pendrel::protocol::AnswerKey(Pendrel::protocol::EAnswerKey::Version);
inline constexpr const wchar_t* kInputFileSizeKey =
    Pendrel::protocol::AnswerKey(Pendrel::protocol::EAnswerKey::InputFileSize);
inline constexpr const wchar_t* kLibVersionKey =
    Pendrel::protocol::AnswerKey(Pendrel::protocol::EAnswerKey::LibVersion);

struct CHandlerDescription {
  std::wstring Name;
  std::wstring Description;
  std::wstring Version;
};

struct CTaskDescription {
  std::wstring Name;
  std::wstring Description;
};

// Answers to the queries: a CResponse of status 3 whose Parameters hold the keys above.
// The library takes the values of "RequestHandlerInfo" and "RequestHandlerTaskInfo" only
// when all their keys are present. The library reads "InputFileSize" with a 32-bit
// conversion, so sizes from 2^32 on do not reach the host intact; they are sent whole all
// the same.
Pendrel::CResponse HandlerInfoAnswer(const CHandlerDescription& description);
Pendrel::CResponse TaskInfoAnswer(const CTaskDescription& description);
Pendrel::CResponse InputFileSizeAnswer(std::uint64_t size);
Pendrel::CResponse LibVersionAnswer(unsigned int version);

}  // namespace PendrelKit
