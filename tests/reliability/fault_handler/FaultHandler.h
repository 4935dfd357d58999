// What the reliability tests rely on from pendrel_fault_handler, a handler program that
// misbehaves on request. It speaks the pipe protocol itself, packet by packet (over the
// channel's transport and framing, without the channel), so that it can break the protocol
// in every way a real handler might: die or hang halfway through an answer, send garbage or
// headers that lie, use other packet sizes, answer late or unasked.
//
// Its arguments after _MN_=, _DM_=, _EX_= choose what it does:
//   (none)                   answers every message with ChecksumAnswer (below)
//   --packet-size P          writes packets of P bytes (9 or more; default 32768)
//   --delay-ms N             waits N ms before answering each message
//   --connect-delay-ms N     waits N ms before opening the pipe
//   --record FILE            appends "<bytes> <checksum>\n" to FILE for every message it
//                            receives, before acting on it
//   --answered FILE          appends "<bytes>\n" to FILE for every answer once it has been
//                            written to the pipe whole
//   --pid-file FILE          writes its process id to FILE first thing
//   --lifetime-ms N          ends the process with kExitLifetime N ms after it started
//   --flood N                right after connecting, sends FloodAnswer(1) … FloodAnswer(N)
//                            that nobody asked for
//   --flood-bytes B          makes each of them B bytes long (blanks after the document)
//   --deep-answer N          answers every message with a response whose parameter "deep"
//                            is N nested arrays
//   --stubborn               ignores SIGTERM, and stays after the pipe has closed until its
//                            lifetime ends (a handler stuck in a callback)
//   --answer-bytes N         answers every message with one file of N bytes of
//                            pendrel_test::PatternBytes(N) (named by its checksum, as
//                            ChecksumAnswer does)
// The first message is answered by breaking the protocol, with one of:
//   --crash-after-packets K  an answer that takes K + 1 packets, of which K are written;
//                            then the process ends at once with kExitCrashed
//   --hang-after-packets K   the same, but the process stays and writes nothing more until
//                            the pipe closes
//   --garbage KIND           one packet that is not a packet: "short" (5 bytes), "ones" (a
//                            whole packet of 0xFF bytes); then waits for the pipe to close
//   --header R,L             one packet whose header says R packets are still to come and
//                            L payload bytes are in this one, filled with 'x' up to the
//                            packet size; then waits for the pipe to close
// Instead of serving the pipe it can sit on a pipe name, reporting to FILE ("ready" once the
// endpoint exists, "connected" if a client ever came):
//   --squat NAME FILE        with the library's own transport (which holds the name)
//   --squat-raw NAME FILE    with the bare system calls of a program that does not play by
//                            the library's rules (Windows: a pipe with a NULL DACL and
//                            unlimited instances; Linux: a socket at the path, without the
//                            name's lock)
// A wrong argument ends it with kExitBadArguments. It always ends: when the pipe closes,
// after --lifetime-ms (default 60 s), or when no pipe is found within 10 s.
#pragma once

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>  // std::move

#include "message/CRequest.h"
#include "message/CResponse.h"
#include "tests/support/Platform.h"

namespace pendrel_fault {

inline constexpr int kExitNormal = 0;
inline constexpr int kExitNoConnection = 2;
inline constexpr int kExitLifetime = 3;
inline constexpr int kExitCrashed = 4;
inline constexpr int kExitSquatFailed = 5;
inline constexpr int kExitBadArguments = 64;

// FNV-1a, 64 bits: enough to tell a byte lost, repeated or changed.
inline std::uint64_t Checksum(std::string_view bytes) {
  std::uint64_t hash = 14695981039346656037ull;
  for (const char c : bytes) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211ull;
  }
  return hash;
}

// "<16 hex digits>-<byte count>": how the handler names what it received.
inline std::wstring ChecksumText(std::string_view bytes) {
  char text[64];
  std::snprintf(text, sizeof(text), "%016" PRIx64 "-%" PRIu64, Checksum(bytes),
                static_cast<std::uint64_t>(bytes.size()));
  return std::wstring(text, text + std::char_traits<char>::length(text));
}

// The answer to a request (read as a CRequest): every input file comes back as it came,
// with its Name replaced by ChecksumText of its bytes as the handler received them and its
// FileName by the request's Command. (The library reads an answer with files as a file list,
// without parameters, so the files carry what the test checks.) A request without files is
// answered with the parameters "Command" and "Checksum" (of the whole message text).
inline Pendrel::CResponse ChecksumAnswer(const Pendrel::CRequest& request,
                                         std::string_view message) {
  Pendrel::CResponse response;
  response.Status = static_cast<Pendrel::EStatus>(0);
  if (request.InputData.empty()) {
    response.Parameters[L"Command"] = request.Command;
    response.Parameters[L"Checksum"] = ChecksumText(message);
    return response;
  }
  for (Pendrel::CMimeFile file : request.InputData) {
    file.Name = ChecksumText(file.Data);
    file.FileName = request.Command;
    response.Data.push_back(std::move(file));
  }
  return response;
}

// The k-th unrequested message of --flood: a response with Parameters {"Flood": "<k>"},
// padded with blanks to `bytes` when it is shorter.
inline std::string FloodAnswer(unsigned k, std::size_t bytes = 0) {
  std::string text = "{\"status\":0,\"Parameters\":{\"Flood\":\"" + std::to_string(k) + "\"}}";
  if (text.size() < bytes) text.resize(bytes, ' ');
  return text;
}

#ifdef PENDREL_FAULT_HANDLER_PATH
// The program as a test must name it to start it.
inline std::wstring FaultHandlerPath() {
  return pendrel_test::ProgramPathFromBuild(PENDREL_FAULT_HANDLER_PATH);
}
#endif

}  // namespace pendrel_fault
