// The HTTP forms of requests and responses: a request's URL, and the header and body of a
// request's input files or a response's result files.
#include <string>

#include "message/CRequest.h"
#include "message/CResponse.h"
#include "message/detail/HttpForm.h"

namespace Pendrel {
namespace {

// The commands whose URL names the attribute (a document or reference) rather than the
// session.
bool UrlCarriesAttribute(const std::wstring& command) {
  static constexpr const wchar_t* kCommands[] = {L"REF",  L"SREF",    L"DOC",
                                                 L"SDOC", L"SIMPLEX", L"DUPLEX"};
  for (const wchar_t* candidate : kCommands) {
    if (command == candidate) return true;
  }
  return false;
}

}  // namespace

std::wstring CRequest::ToHttpURL(std::wstring server, std::wstring session) const {
  std::wstring url;
  if (!server.empty()) url += L"http://" + server + L"/";
  url += Command;
  url += L'/';
  url += UrlCarriesAttribute(Command) ? CommandAtribute : session;
  for (const auto& [key, value] : CommandParams) url += L'/' + key + L'/' + value;
  // Keys as stored: unlike GetRequestParamsString, the URL keeps their case.
  wchar_t separator = L'?';
  for (const auto& [key, value] : RequestParams) {
    url += separator;
    url += key + L'=' + value;
    separator = L'&';
  }
  return url;
}

void CRequest::ToHttpRequestData(std::string& header, std::string& body) const {
  if (InputData.empty()) {
    body.clear();
    header = detail::kJsonHttpHeader;
    return;
  }
  detail::WriteFilesHttpForm(InputData, header, body);
}

void CResponse::ToHttpRequestData(std::string& header, std::string& body) const {
  if (Data.empty()) {
    // Unlike a request, a response without files still answers: with its common JSON form.
    body = ToCommonJsonString();
    header = detail::kJsonHttpHeader;
    return;
  }
  detail::WriteFilesHttpForm(Data, header, body);
}

}  // namespace Pendrel
