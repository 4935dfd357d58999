#include "message/CRequest.h"

#include <cwctype>  // towlower
#include <utility>

#include "json/TextConversion.h"
#include "message/detail/HttpForm.h"

namespace Pendrel {
namespace {

bool HasKey(const CKeyValueMap& params, const std::wstring& key) {
  return params.find(ToUpperW(key)) != params.end();
}

std::wstring ValueOf(const CKeyValueMap& params, const std::wstring& key) {
  const auto it = params.find(ToUpperW(key));
  return it == params.end() ? std::wstring() : it->second;
}

// Appends `separator`, the key folded to lower case, "=" and the value for every entry;
// `first` introduces the first entry instead of `separator`.
std::wstring JoinParams(const CKeyValueMap& params, wchar_t first, wchar_t separator) {
  std::wstring text;
  for (const auto& [key, value] : params) {
    text += text.empty() ? first : separator;
    for (wchar_t c : key) text += static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(c)));
    text += L'=';
    text += value;
  }
  return text;
}

}  // namespace

CRequest::CRequest() = default;
CRequest::CRequest(const CRequest& other) = default;
CRequest& CRequest::operator=(const CRequest& other) = default;
CRequest::~CRequest() = default;

CRequest::CRequest(CRequest&& other) noexcept { *this = std::move(other); }

CRequest& CRequest::operator=(CRequest&& other) noexcept {
  if (this == &other) return *this;
  Resource = std::move(other.Resource);
  Command = std::move(other.Command);
  CommandAtribute = std::move(other.CommandAtribute);
  CommandParams = std::move(other.CommandParams);
  RequestParams = std::move(other.RequestParams);
  InputData = std::move(other.InputData);
  // Moved-from standard containers are only "valid"; callers rely on them being empty.
  other.Resource.clear();
  other.Command.clear();
  other.CommandAtribute.clear();
  other.CommandParams.clear();
  other.RequestParams.clear();
  other.InputData.clear();
  return *this;
}

bool CRequest::HasCommandKey(const std::wstring& key) const { return HasKey(CommandParams, key); }

bool CRequest::HasRequestKey(const std::wstring& key) const { return HasKey(RequestParams, key); }

std::wstring CRequest::GetCommandValue(const std::wstring& key) const {
  return ValueOf(CommandParams, key);
}

std::wstring CRequest::GetRequestValue(const std::wstring& key) const {
  return ValueOf(RequestParams, key);
}

void CRequest::RemoveRequestParameter(const std::wstring& key) {
  RequestParams.erase(ToUpperW(key));
}

std::wstring CRequest::GetCommandParamsString() const {
  return JoinParams(CommandParams, L'&', L'&');
}

std::wstring CRequest::GetRequestParamsString() const {
  return JoinParams(RequestParams, L'?', L'&');
}

bool CRequest::IsCreationSession() const {
  return Command == SIMPLEX || Command == DUPLEX || Command == JOB;
}

std::wstring CRequest::GetNextResource(std::wstring& path) {
  return detail::TakeResourceSegment(path);
}

}  // namespace Pendrel
