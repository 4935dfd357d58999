// CResponse: one answer to a request, with its status, session, result parameters,
// progress report and result files; CProgress, the progress report; the Error helpers that
// build error responses; and Version, the version of this record interface.
//
// Plain values, not synchronised: one thread at a time.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "message/CMimeFile.h"
#include "message/Export.h"

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
  std::map<std::wstring, std::wstring> Parameters;  // "error" holds an error's message
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
};

// Writes `message` and a line end to the standard wide output, flushes it, and returns
// CResponse(message).
PENDREL_API CResponse Error(std::wstring message);

// As Error(message), with Status set to `status`.
PENDREL_API CResponse Error(EStatus status, std::wstring message);

}  // namespace Pendrel
