// CRequest: one request that the front-end server passes to a handler.
//
// A plain value: a command word and its attribute, two ordered parameter maps and a list of
// input files. Lookups fold the given key to upper case and then search for it exactly;
// the maps themselves are case-sensitive, so callers store upper-case keys. Not
// synchronised: one thread at a time; the const operations only read.
#pragma once

#include <string>
#include <vector>

#include "message/CMimeFile.h"
#include "message/Export.h"
#include "message/KeyValueMap.h"

namespace Pendrel {

class PENDREL_API CRequest {
 public:
  // Carried with the request; no operation of the record reads or writes it.
  std::wstring Resource;
  std::wstring Command;          // compared case-sensitively everywhere
  std::wstring CommandAtribute;  // spelled as handlers spell the JSON key
  CKeyValueMap CommandParams;    // path segments of the URL form
  CKeyValueMap RequestParams;    // query string of the URL form
  std::vector<CMimeFile> InputData;

  CRequest();
  CRequest(const CRequest& other);
  CRequest(CRequest&& other) noexcept;
  CRequest& operator=(const CRequest& other);
  // Leaves `other` a valid empty record whose maps accept new entries.
  CRequest& operator=(CRequest&& other) noexcept;
  ~CRequest();

  // Whether CommandParams / RequestParams hold the upper-cased `key`.
  bool HasCommandKey(const std::wstring& key) const;
  bool HasRequestKey(const std::wstring& key) const;

  // The value under the upper-cased `key`; empty when there is none.
  std::wstring GetCommandValue(const std::wstring& key) const;
  std::wstring GetRequestValue(const std::wstring& key) const;

  // Erases the upper-cased `key` from RequestParams; nothing when it is absent.
  void RemoveRequestParameter(const std::wstring& key);

  // "&key=value" for every command parameter, keys in lower case, nothing escaped.
  std::wstring GetCommandParamsString() const;

  // "?key=value&key=value" for the request parameters, keys in lower case, nothing escaped.
  std::wstring GetRequestParamsString() const;

  // True when Command is exactly "SIMPLEX", "DUPLEX" or "JOB", the commands that open a
  // session.
  bool IsCreationSession() const;

  // The request's JSON document, as handlers read it: {"Command", "CommandAtribute",
  // "CommandParams": {...}, "RequestParams": {...}, "InputData": [{"Name", "FileName",
  // "Type", "Data"}, ...]}, every member always present, compact UTF-8. "Data" holds the
  // file's bytes as they are, escaped only by the JSON layer's eight escapes. Keys are written
  // as stored; Resource and IsAttachment are not part of the form.
  std::string ToJsonString() const;

  // Replaces this record with what `json` holds; the record is emptied first. Leniently
  // read: text that is not JSON reads as an empty document, absent or mistyped members as
  // empty, null as the text "null", numbers and booleans as their text. Command parameter
  // keys are kept as written, request parameter keys are folded to upper case, and the first
  // of duplicate keys wins. Files come back with IsAttachment true and a type found by exact
  // MIME name (Binary otherwise). Returns false only when an error (running out of memory)
  // interrupts the reading; the record is then partly filled.
  bool FromJsonString(const std::string& json);
  // The same for a text the caller gives away: a file's contents are read within the text's
  // own memory and become the file's Data without a copy. `json` is left in an unspecified
  // state.
  bool FromJsonString(std::string&& json);

  // The URL form: ["http://" server "/"] Command "/" (CommandAtribute for REF, SREF, DOC,
  // SDOC, SIMPLEX and DUPLEX, else `session`), then "/key/value" per command parameter and
  // "?key=value&…" for the request parameters. Keys keep their case; nothing is escaped.
  std::wstring ToHttpURL(std::wstring server, std::wstring session) const;

  // The header lines (joined by "\n", no final line end) and body of the input files:
  // without files a JSON header and an empty body; one file as its own bytes; several as a
  // multipart/mixed body with base64 parts. Both outputs are replaced. Safe to call from
  // several threads at once on different records.
  void ToHttpRequestData(std::string& header, std::string& body) const;

 private:
  // Takes the first segment off the slash-separated `path` and returns it; one leading "/"
  // is dropped first.
  std::wstring GetNextResource(std::wstring& path);
};

}  // namespace Pendrel
