// The shared vocabulary of the message model: command keywords, the content types the
// system knows (EMimeType) with their MIME names and file-name extensions, and CMimeFile,
// one file of a request or a response.
//
// Everything here is plain data or a pure function; any thread may call the functions. A
// CMimeFile is a value and is not synchronised.
#pragma once

#include <cstdint>
#include <string>

#include "message/Export.h"

namespace Pendrel {

// Command keywords, each holding its own name. "SIMPLEX", "DUPLEX" and "JOB" open a session;
// the library itself consults no other. Built before any code of the library runs and
// read-only afterwards.
PENDREL_API extern const std::wstring REF;
PENDREL_API extern const std::wstring SIMPLEX;
PENDREL_API extern const std::wstring DUPLEX;
PENDREL_API extern const std::wstring JOB;
PENDREL_API extern const std::wstring PING;
PENDREL_API extern const std::wstring TRACK;
PENDREL_API extern const std::wstring START;
PENDREL_API extern const std::wstring STOP;
PENDREL_API extern const std::wstring PATH;
PENDREL_API extern const std::wstring DATA;
PENDREL_API extern const std::wstring FILE;
PENDREL_API extern const std::wstring INFO;
PENDREL_API extern const std::wstring MSG;
PENDREL_API extern const std::wstring FINISH;
PENDREL_API extern const std::wstring SHOT;
PENDREL_API extern const std::wstring WFRAME;
PENDREL_API extern const std::wstring IMG;
PENDREL_API extern const std::wstring VALUE;
PENDREL_API extern const std::wstring TASK;
PENDREL_API extern const std::wstring TYPE;
PENDREL_API extern const std::wstring LANG;
PENDREL_API extern const std::wstring LINK;
PENDREL_API extern const std::wstring REASON;
PENDREL_API extern const std::wstring TIMEOUT;
PENDREL_API extern const std::wstring TEXT;
PENDREL_API extern const std::wstring PARAM;
PENDREL_API extern const std::wstring STATUS;
PENDREL_API extern const std::wstring FOLDER;

// Content types. The numbers travel in the response's JSON form ("Type") and must not
// change. None is never produced by a conversion; Binary is their fallback.
enum EMimeType : std::int32_t {
  None = 0,
  Binary = 1,
  Json = 2,
  Text = 3,
  Jpeg = 4,
  Png = 5,
  Gif = 6,
  Pdf = 7,
  Zip = 8,
  Csv = 9,
  Svg = 10,
};

// The MIME type name of `type`, e.g. "application/pdf"; "application/octet-stream" for None,
// Binary and every value outside Json..Svg.
PENDREL_API std::string GetMimeTypeName(EMimeType type);

// The type whose name equals `name` byte for byte (no case folding, trimming or parameter
// stripping); Binary when none does.
PENDREL_API EMimeType GetMimeType(const std::string& name);

// The type of a file name's extension: the text from its last "." on, or "." plus the whole
// name when it has none (so "png" is recognised). Matched case-sensitively against the
// lower-case extensions; anything else gives Binary.
PENDREL_API EMimeType GetMimeTypeByFileExt(const std::wstring& fileName);

// True for Jpeg, Png, Gif and Svg.
PENDREL_API bool MimeTypeIsImage(EMimeType type);

// True for Json, Text and Csv.
PENDREL_API bool MimeTypeIsText(EMimeType type);

// One file: its content type, names and raw content bytes.
class PENDREL_API CMimeFile {
 public:
  EMimeType Type = Text;
  std::wstring FileName;  // with extension, without directory: "report.pdf"
  std::wstring Name;      // without the last extension: "report"
  std::string Data;       // raw content; may hold zero bytes
  bool IsAttachment = true;

  // Reads the file at `path` into this record. Returns false, leaving the record unchanged,
  // when `path` cannot be opened as a file (missing, unreadable, a folder). Otherwise sets
  // FileName (the text after the last path separator: "\" on Windows, "\" or "/" elsewhere),
  // Name, Type (from the extension) and Data, and returns true; IsAttachment is not touched.
  // A file name without "." is an error: FileName and Name are replaced, the file is closed
  // and std::out_of_range is thrown. Files whose size does not fit a 32-bit long are not
  // supported.
  bool LoadFromFile(const std::wstring& path);
};

}  // namespace Pendrel
