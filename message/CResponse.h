// CResponse: one answer to a request, with its status, session, result parameters,
// progress report and result files; CProgress, the progress report; the Error helpers that
// build error responses; and Version, the version of this record interface.
//
// Plain values, not synchronised: one thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "message/CMimeFile.h"
#include "message/Export.h"
#include "message/KeyValueMap.h"

namespace Pendrel {

// The outcome of a request. Every text form carries it as a plain number and every reader
// accepts any value; the names belong to the protocol between a host and its handlers. The
// record itself uses 3 (the default) and 1 (an answer that lists files).
enum EStatus : std::int32_t {};

// Version of this record interface (4), for hosts to check; the library never reads it.
PENDREL_API extern const unsigned int Version;

// A progress report; its numbers mean something only while IsSet is true. No operation
// checks them against each other.
struct PENDREL_API CProgress {
  std::int32_t PhasePos = 0;
  std::int32_t PhaseTotal = 0;
  std::int32_t PhaseProgressPos = 0;
  std::int32_t PhaseProgressTotal = 0;
  std::int32_t TaskProgressPos = 0;
  std::int32_t TaskProgressTotal = 0;
  std::int32_t TaskProgressTime = 0;  // passed through; the library gives it no unit
  bool IsSet = false;

  // All numbers 0, IsSet false.
  CProgress();
};

class PENDREL_API CResponse {
 public:
  std::uint32_t Tag = 0;  // carried with the record; no text form holds it
  std::vector<CMimeFile> Data;
  EStatus Status = static_cast<EStatus>(3);
  std::wstring Session;
  CKeyValueMap Parameters;  // "error" holds an error's message
  CProgress Progress;

  // Status 3, nothing else set.
  CResponse();
  // Status `status`, nothing else set.
  explicit CResponse(EStatus status);
  // Status 3 and Parameters {"error": message}, also for an empty message.
  explicit CResponse(std::wstring message);

  CResponse(const CResponse& other);
  // Takes the files, session and parameters; `other` keeps its Tag, Status and Progress and
  // is left with no files, an empty session and an empty map that accepts new entries.
  CResponse(CResponse&& other) noexcept;
  CResponse& operator=(const CResponse& other);
  // As the move constructor; assigning a record to itself changes nothing.
  CResponse& operator=(CResponse&& other) noexcept;
  ~CResponse();

  // True when some file is offered as an attachment: its IsAttachment is set, or its type
  // cannot be shown inline (anything but Json, Text, Jpeg, Png, Gif, Csv and Svg). False for
  // no files.
  bool HasAttachedFiles() const;

  // The full JSON form, as a handler answers: {"Data": [files], "status", "session",
  // "Parameters": {...}, "phase", "phaseProgress", "taskProgress"}, compact UTF-8. "Data"
  // only with files, "session" only when not empty, the progress objects only while
  // Progress.IsSet. Each file is {"Type": number, "FileName", "Title" (its Name), "Data" (its
  // bytes as they are), "IsAttachment"}.
  std::string ToJsonString() const;

  // The common form for the host's own clients: {"status", "session", progress objects,
  // then one member per parameter} without files. A parameter named like a fixed member
  // gives a second member of that name.
  std::string ToCommonJsonString() const;

  // Reads the full form into this record. A document with a "Data" array is a file list: its
  // files are appended to Data, Status becomes 1, and status, session, parameters and
  // progress are not read. Otherwise Status, Session (empty when absent) and the progress
  // (set exactly when "phaseProgress" is present) are replaced and the parameters are merged
  // in, later duplicates winning. Wrong kinds read as 0, empty or "null"; text that is not
  // JSON reads as an empty document (Status 0). Returns false only when an error (running
  // out of memory) interrupts the reading; what was set stays set.
  bool FromJsonString(std::string text);

  // Unpacks a standard response file: when Data holds exactly one Json file whose content is
  // an object with a "status" member, its "status", "session" and progress members and every
  // other member (as a parameter) are applied in document order, later duplicates winning,
  // and the file is removed. Anything else leaves the record unchanged. Never fails; an
  // error while applying leaves what was applied and keeps the file.
  void ParseStdResponseFromFileData();

  // The header lines (joined by "\n", no final line end) and body that answer an HTTP
  // client: without files the common JSON form; one file as its own bytes; several as a
  // multipart/mixed body with base64 parts. Status, session, parameters and progress travel
  // only in the JSON body. Every file is "inline". Both outputs are replaced.
  void ToHttpRequestData(std::string& header, std::string& body) const;
};

// Writes `message` and a line end to the process's standard output, flushes it, and returns
// CResponse(message). Windows writes through std::wcout; other systems write UTF-8 through
// the byte stream (wide characters when the host has made stdout wide-oriented) and never
// change stdout's orientation, so the host's own printf and std::cout output keeps appearing.
// Any thread.
PENDREL_API CResponse Error(std::wstring message);

// As Error(message), with Status set to `status`.
PENDREL_API CResponse Error(EStatus status, std::wstring message);

}  // namespace Pendrel
