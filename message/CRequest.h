// CRequest: one request that the front-end server passes to a handler.
//
// A plain value: a command word and its attribute, two ordered parameter maps and a list of
// input files. Lookups fold the given key to upper case and then search for it exactly;
// the maps themselves are case-sensitive, so callers store upper-case keys. Not
// synchronised: one thread at a time; the const operations only read.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "message/CMimeFile.h"
#include "message/Export.h"

namespace Pendrel {

class PENDREL_API CRequest {
 public:
  // Carried with the request; no operation of the record reads or writes it.
  std::wstring Resource;
  std::wstring Command;                                // compared case-sensitively everywhere
  std::wstring CommandAtribute;                        // spelled as handlers spell the JSON key
  std::map<std::wstring, std::wstring> CommandParams;  // path segments of the URL form
  std::map<std::wstring, std::wstring> RequestParams;  // query string of the URL form
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

 private:
  // Takes the first segment off the slash-separated `path` and returns it; one leading "/"
  // is dropped first.
  std::wstring GetNextResource(std::wstring& path);

  friend struct CRequestTestAccess;
};

}  // namespace Pendrel
