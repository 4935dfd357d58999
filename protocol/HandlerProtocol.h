// The protocol between the library and a handler program, defined once: the packet layout
// of the pipe, the arguments a handler is started with, the command words of the messages
// and the keys of their query texts and answers. The client (handler/) writes with these
// tables and the handler kit (handler_kit/) reads with them, so the two sides cannot drift
// apart.
//
// A handler is started as
//   <path> _MN_=<pipe name> _DM_=<mode> _EX_=2 [extra arguments]
// and connects to the pipe as its client. Each message is narrow text: a request's JSON
// document (starting with "{"), or a command word, possibly followed by a query text
// ("&key=value&key=value…", UTF-8, values inserted as they stand, nothing escaped). Every
// message but "OnCloseSession" gets exactly one answer, a response's full JSON document;
// answers are matched to messages by order alone.
//
// Each list below is an X-macro, X(name, text), expanded into an enumeration and a table of
// texts indexed by it. Everything here is constant; any thread may use it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>  // std::size
#include <string>
#include <string_view>

namespace Pendrel::protocol {

// Expanders of the lists below: an enumerator, a narrow text, a wide text.
#define PENDREL_PROTOCOL_ENUMERATOR(name, text) name,
#define PENDREL_PROTOCOL_NARROW(name, text) text,
#define PENDREL_PROTOCOL_WIDE(name, text) L"" text,

// --- Packets -------------------------------------------------------------------------------
// A message travels as packets of P bytes, P = max(packet size, kMinPacketSize): an 8-byte
// header of two little-endian 32-bit words (packets still to come after this one, payload
// bytes in this one), the payload, and zero filler up to P. An empty message is one packet
// with both words 0.
inline constexpr std::uint32_t kPacketSize = 32768;
inline constexpr std::uint32_t kMinPacketSize = 128;
inline constexpr std::uint32_t kPacketHeaderSize = 8;
inline constexpr std::size_t kRemainingOffset = 0;  // header word: packets still to come
inline constexpr std::size_t kPayloadOffset = 4;    // header word: payload bytes

struct PacketHeader {
  std::uint32_t remaining = 0;  // packets still to come after this one
  std::uint32_t payload = 0;    // payload bytes in this packet
};

inline void PutLittleEndian32(char* out, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
}

inline std::uint32_t GetLittleEndian32(const char* in) {
  std::uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = (value << 8) | static_cast<unsigned char>(in[i]);
  return value;
}

// Writes `header` into the first kPacketHeaderSize bytes at `out`.
inline void WritePacketHeader(char* out, PacketHeader header) {
  PutLittleEndian32(out + kRemainingOffset, header.remaining);
  PutLittleEndian32(out + kPayloadOffset, header.payload);
}

// Reads the header from the first kPacketHeaderSize bytes at `in`.
inline PacketHeader ReadPacketHeader(const char* in) {
  return {GetLittleEndian32(in + kRemainingOffset), GetLittleEndian32(in + kPayloadOffset)};
}

// --- Start --------------------------------------------------------------------------------
// How long the library waits for a started handler to connect to its pipe.
inline constexpr std::uint32_t kConnectTimeLimitMs = 10000;

// The arguments the library puts after the handler's path, in this order.
#define PENDREL_PROTOCOL_START_ARGUMENTS(X)                  \
  X(PipeName, "_MN_=") /* the bare pipe name */              \
  X(Mode, "_DM_=")     /* the host's mode number, decimal */ \
  X(ExValue, "_EX_=")  /* always kExValue */

enum class EStartArgument { PENDREL_PROTOCOL_START_ARGUMENTS(PENDREL_PROTOCOL_ENUMERATOR) };

inline constexpr std::wstring_view kStartArgumentPrefixes[] = {
    PENDREL_PROTOCOL_START_ARGUMENTS(PENDREL_PROTOCOL_WIDE)};

// "_MN_=", "_DM_=" or "_EX_=".
constexpr std::wstring_view StartArgumentPrefix(EStartArgument argument) {
  return kStartArgumentPrefixes[static_cast<std::size_t>(argument)];
}

// The value the library always passes after "_EX_=".
inline constexpr int kExValue = 2;

// The environment variable that tells a handler the folder its pipe lives in (Linux: the
// socket folder; Windows: \\.\pipe). Always set by the library.
inline constexpr char kPipeFolderVariable[] = "PENDREL_PIPE_DIR";

// --- Messages -----------------------------------------------------------------------------
// The command words, and what each one's answer carries.
#define PENDREL_PROTOCOL_COMMANDS(X)                                                     \
  X(HandlerInfo, "RequestHandlerInfo")       /* answer: Name, Description, Version */    \
  X(TaskInfo, "RequestHandlerTaskInfo")      /* &TaskCode=<code>; answer: Name, Desc. */ \
  X(InputFileSize, "RequestInputFileSize")   /* answer: InputFileSize (decimal) */       \
  X(LibVersion, "RequestLibVersion")         /* answer: LibVersion (decimal) */          \
  X(AllOutputFiles, "RequestAllOutputFiles") /* answer: a response with files */         \
  X(CreateSession, "OnCreateSession")        /* the session keys below; an answer */     \
  X(CloseSession, "OnCloseSession")          /* no answer */

enum class ECommand { PENDREL_PROTOCOL_COMMANDS(PENDREL_PROTOCOL_ENUMERATOR) };

inline constexpr std::string_view kCommandWords[] = {
    PENDREL_PROTOCOL_COMMANDS(PENDREL_PROTOCOL_NARROW)};

inline constexpr std::size_t kCommandCount = std::size(kCommandWords);

// The command word of `command`, e.g. "RequestHandlerInfo".
constexpr std::string_view CommandWord(ECommand command) {
  return kCommandWords[static_cast<std::size_t>(command)];
}

// The first character of every request document, and of no command word.
inline constexpr char kRequestStart = '{';
// What separates the command word from the query text and one pair from the next.
inline constexpr char kQuerySeparator = '&';
inline constexpr char kQueryAssign = '=';

// Keys of the query texts. "RequestHandlerTaskInfo" carries TaskCode; "OnCreateSession"
// carries the other keys, in this order.
#define PENDREL_PROTOCOL_QUERY_KEYS(X)  \
  X(TaskCode, "TaskCode")               \
  X(SessionKey, "SessionKey")           \
  X(User, "User")                       \
  X(HandleTaskID, "HandleTaskID")       \
  X(HandlerCode, "HandlerCode")         \
  X(HandlerTaskCode, "HandlerTaskCode") \
  X(LogFileName, "LogFileName")         \
  X(TaskTimeoutS, "TaskTimeoutS")

enum class EQueryKey { PENDREL_PROTOCOL_QUERY_KEYS(PENDREL_PROTOCOL_ENUMERATOR) };

inline constexpr const wchar_t* kQueryKeys[] = {PENDREL_PROTOCOL_QUERY_KEYS(PENDREL_PROTOCOL_WIDE)};

// The same keys as they stand in a message's (narrow) query text.
inline constexpr std::string_view kQueryKeyWords[] = {
    PENDREL_PROTOCOL_QUERY_KEYS(PENDREL_PROTOCOL_NARROW)};

constexpr const wchar_t* QueryKey(EQueryKey key) {
  return kQueryKeys[static_cast<std::size_t>(key)];
}

constexpr std::string_view QueryKeyWord(EQueryKey key) {
  return kQueryKeyWords[static_cast<std::size_t>(key)];
}

// Appends "&<key>=<value>" to `message`; `value` (UTF-8) goes in as it stands.
inline void AppendQueryPair(std::string& message, EQueryKey key, std::string_view value) {
  message += kQuerySeparator;
  message += QueryKeyWord(key);
  message += kQueryAssign;
  message += value;
}

// The keys of "OnCreateSession", in the order the library sends them.
inline constexpr EQueryKey kSessionKeys[] = {
    EQueryKey::SessionKey,      EQueryKey::User,
    EQueryKey::HandleTaskID,    EQueryKey::HandlerCode,
    EQueryKey::HandlerTaskCode, EQueryKey::LogFileName,
    EQueryKey::TaskTimeoutS,
};

// The Parameters keys the library reads from the answers to the queries.
#define PENDREL_PROTOCOL_ANSWER_KEYS(X) \
  X(Name, "Name")                       \
  X(Description, "Description")         \
  X(Version, "Version")                 \
  X(InputFileSize, "InputFileSize")     \
  X(LibVersion, "LibVersion")

enum class EAnswerKey { PENDREL_PROTOCOL_ANSWER_KEYS(PENDREL_PROTOCOL_ENUMERATOR) };

inline constexpr const wchar_t* kAnswerKeys[] = {
    PENDREL_PROTOCOL_ANSWER_KEYS(PENDREL_PROTOCOL_WIDE)};

constexpr const wchar_t* AnswerKey(EAnswerKey key) {
  return kAnswerKeys[static_cast<std::size_t>(key)];
}

}  // namespace Pendrel::protocol
