// What a test can rely on from pendrel_test_handler, the handler program the tests start:
// its fixed answers and exit codes, the file in which it records the messages it received,
// and where its executable is.
//
// The handler's extra arguments (after _MN_=, _DM_=, _EX_=) choose its behaviour:
//   (none)                  answers every message as described at the constants below
//   --record FILE           appends every message it receives, exactly, to FILE (format:
//                           AppendRecordedMessage), before acting on it
//   --done FILE             creates FILE once the library has closed the pipe and the
//                           handler has recorded everything it received (normal and broken
//                           modes alike)
//   --info NAME,DESC,VER    "RequestHandlerInfo" answers these (split at the commas)
//   --lib-version TEXT      "RequestLibVersion" answers "LibVersion" = TEXT as it stands
//   --input-file-size TEXT  "RequestInputFileSize" answers "InputFileSize" = TEXT
//   --omit KEY              leaves the Parameters key KEY out of every query's answer
//                           (repeatable), e.g. --omit Version
//   --delay-ms N            waits N ms before acting on each message
//   --never-answer          records messages but answers none
//   --not-json              answers every message but "OnCloseSession" with kNotJsonAnswer
//   --flood N               right after connecting, sends N messages nobody asked for:
//                           FloodMessage(1) … FloodMessage(N)
//   --exit-after N          after acting on N messages (any kind), closes the pipe once its
//                           answers are out, and exits 0; N = 0: right after connecting
//   --exit-before-connect   exits 0 at once, never opening the pipe
//   --never-connect         never opens the pipe; sleeps 30 s (or until --lifetime-ms), then
//                           exits 0
//   --lifetime-ms N         ends the process, whatever it is doing, N ms after it started,
//                           with kExitLifetime
//   --crash-mid-answer K    answers the message chosen by --broken-at (default the first)
//                           with an answer that takes K + 1 packets, writes only its first
//                           K packets and ends the process at once with kExitCrashed
//   --lying-header          answers the message chosen by --broken-at with one packet whose
//                           header announces 32768 payload bytes in a 32768-byte packet
//                           (room for 32760), then waits up to 60 s for the pipe to close
//   --broken-at N           the 1-based message that --crash-mid-answer or --lying-header
//                           breaks; the messages before it are answered normally
//   --exit-code N           ends with N (0 to 255) wherever it would end with kExitNormal
//   --print TEXT            first thing, writes "out:TEXT\n" to its standard output and
//                           "err:TEXT\n" to its standard error, each flushed at once
//   --report-env NAME       answers requests with the parameter "Env" = the environment
//                           variable NAME as it found it, "<unset>" when there is none
//   --abort-on-request      ends with std::abort() on the first request (Linux: SIGABRT;
//                           Windows: exit code 3)
//   --hang-in-request       the request callback never returns (it waits 60 s, then the
//                           process ends with kExitLifetime)
//   --close-grace-ms N      the kit's CloseGracePeriodMs
//   --pid-file FILE         first thing, writes its process id and a line end to FILE
// Numbers are decimal. A wrong argument ends the handler with kExitBadArguments before it
// opens the pipe. --crash-mid-answer and --lying-header honour --record and --delay-ms and no
// other option. The handler always ends: when the library closes the pipe, after --exit-after,
// --never-connect or --lifetime-ms, or when it finds no pipe within 10 s.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>  // std::istreambuf_iterator
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Platform.h"
#include "tests/support/WaitFor.h"

namespace pendrel_test {

// Fixed answers of the test handler:
// - a request: Parameters = the request's RequestParams, plus "Command" and
//   "CommandAtribute" = the request's fields and "CommandParam.<key>" = each command
//   parameter; Data = the request's input files; session = the key of the open session (see
//   below), none before one. (The library reads a document with files as a file list, so
//   with files only they come back.)
// - "RequestHandlerInfo": the three kDefault… texts below, or --info.
// - "RequestHandlerTaskInfo&TaskCode=C": "Name" = "Task " C, "Description" = "Test task " C.
// - "RequestInputFileSize", "RequestLibVersion": the kDefault… texts below, or the options.
// - "RequestAllOutputFiles": Data = every file it has answered requests with so far.
// - "OnCreateSession&…": session = SessionKey, Parameters = every key/value of the query (the
//   first of duplicate keys); the session key stays open until "OnCloseSession".
// - anything else: an error response (Parameters "error").
inline constexpr wchar_t kDefaultHandlerName[] = L"TestHandler";
inline constexpr wchar_t kDefaultHandlerDescription[] = L"Test handler of pendrel";
inline constexpr wchar_t kDefaultHandlerVersion[] = L"1.0";
inline constexpr wchar_t kDefaultLibVersion[] = L"4";
inline constexpr wchar_t kDefaultInputFileSize[] = L"123456789";
inline constexpr wchar_t kUnsetEnvironmentValue[] = L"<unset>";
inline constexpr char kNotJsonAnswer[] = "this is not JSON";

// The full JSON text of the k-th unrequested message of --flood: a CResponse with
// Parameters {"Flood": "<k>"}.
inline std::string FloodMessage(unsigned k) {
  return "{\"status\":3,\"Parameters\":{\"Flood\":\"" + std::to_string(k) + "\"}}";
}

// Exit codes.
inline constexpr int kExitNormal = 0;
inline constexpr int kExitNoConnection = 2;
inline constexpr int kExitLifetime = 3;
inline constexpr int kExitCrashed = 4;
inline constexpr int kExitBadArguments = 64;

// The record file: one entry per message, "<byte count>\n<the bytes>\n", appended and
// flushed whole per message so a reader never sees half an entry as a whole one.
inline bool AppendRecordedMessage(const std::filesystem::path& file, const std::string& message) {
  std::ofstream out(file, std::ios::binary | std::ios::app);
  out << message.size() << '\n';
  out.write(message.data(), static_cast<std::streamsize>(message.size()));
  out << '\n';
  out.flush();
  return static_cast<bool>(out);
}

// The whole entries of the record file, in order (none when it does not exist); an entry
// still being written is left out.
inline std::vector<std::string> ReadRecordedMessages(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  const std::string all{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  std::vector<std::string> messages;
  std::size_t at = 0;
  for (;;) {
    const std::size_t lineEnd = all.find('\n', at);
    if (lineEnd == std::string::npos || lineEnd == at) break;
    std::size_t size = 0;
    for (std::size_t i = at; i < lineEnd; ++i) {
      if (all[i] < '0' || all[i] > '9') return messages;
      size = size * 10 + static_cast<std::size_t>(all[i] - '0');
    }
    const std::size_t start = lineEnd + 1;
    if (all.size() < start + size + 1 || all[start + size] != '\n') break;
    messages.push_back(all.substr(start, size));
    at = start + size + 1;
  }
  return messages;
}

// Waits until the record file holds at least `count` entries or `timeout` passes; returns
// what it holds then. The handler records a message before it acts on it, but a test sees
// the file only after the handler's next turn.
inline std::vector<std::string> WaitForRecordedMessages(const std::filesystem::path& file,
                                                        std::size_t count,
                                                        std::chrono::milliseconds timeout) {
  std::vector<std::string> messages;
  WaitFor(
      [&] {
        messages = ReadRecordedMessages(file);
        return messages.size() >= count;
      },
      timeout);
  return messages;
}

#ifdef PENDREL_TEST_HANDLER_PATH
// The test handler's executable as the test program must name it to start it.
inline std::wstring TestHandlerPath() { return ProgramPathFromBuild(PENDREL_TEST_HANDLER_PATH); }
#endif

}  // namespace pendrel_test
