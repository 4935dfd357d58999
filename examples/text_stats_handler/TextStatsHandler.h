// The answers of the example handler "Text statistics": what each message of the library
// gets. main() hands them to the handler kit, which serves the pipe.
//
// Requests (Command, the input files in InputData):
//   STATS     counts the lines, words and bytes of every input file. Answers status 0 with
//             Parameters FILES, LINES, WORDS, BYTES (the totals) and one entry per file
//             ("<file name>": "L lines, W words, B bytes") and a progress report; with the
//             request parameter REPORT=files it answers with the tables stats.csv and
//             stats.json instead.
//   CSV2JSON  converts every input file from CSV to JSON (<name>.json); the request
//             parameter DELIMITER sets the field separator (one character, or TAB; default
//             ","). Answers with the files.
// Anything else, a request without input files or with a file larger than the input file
// size gets an error response: status 3 and Parameters {"error": why}.
// A session (OnCreateSession … OnCloseSession) puts its key into every answer's session;
// RequestAllOutputFiles answers every file made since the session opened (or the handler
// started).
//
// Thread rules: the kit calls every answer on its own thread, one message at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "handler_kit/HandlerKit.h"

namespace TextStats {

// The input file size this handler takes unless its command line says otherwise (16 MiB).
inline constexpr std::uint64_t kDefaultMaxInputBytes = 16u << 20;

class CTextStatsHandler {
 public:
  explicit CTextStatsHandler(std::uint64_t maxInputBytes = kDefaultMaxInputBytes);

  // Fills the kit's descriptions (Info, Tasks, InputFileSize) and points its callbacks at
  // this object, which must outlive the kit's Run.
  void Attach(PendrelKit::CHandlerKit& kit);

  Pendrel::CResponse OnRequest(const Pendrel::CRequest& request);
  Pendrel::CResponse OnCreateSession(const PendrelKit::CSessionInfo& session);
  void OnCloseSession();
  Pendrel::CResponse OnAllOutputFiles() const;

 private:
  Pendrel::CResponse Stats(const Pendrel::CRequest& request);
  Pendrel::CResponse CsvToJson(const Pendrel::CRequest& request);
  // Why the request's input cannot be taken (no file, or one too large); empty when it can.
  std::wstring CheckInput(const Pendrel::CRequest& request) const;
  // A response of status 0 in the open session, if any.
  Pendrel::CResponse Answer() const;

  std::uint64_t m_maxInputBytes;
  std::wstring m_session;                         // the open session's key; empty when none
  std::vector<Pendrel::CMimeFile> m_outputFiles;  // made since the session opened
};

}  // namespace TextStats
