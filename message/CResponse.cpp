#include "message/CResponse.h"

#include <utility>

#include "message/detail/StandardOutput.h"

namespace Pendrel {

const unsigned int Version = 4;

namespace {
constexpr EStatus kDefaultStatus = static_cast<EStatus>(3);
}  // namespace

CProgress::CProgress() = default;

CResponse::CResponse() = default;

CResponse::CResponse(EStatus status) : Status(status) {}

CResponse::CResponse(std::wstring message) { Parameters[L"error"] = std::move(message); }

CResponse::CResponse(const CResponse& other) = default;

CResponse::CResponse(CResponse&& other) noexcept { *this = std::move(other); }

CResponse& CResponse::operator=(const CResponse& other) {
  if (this == &other) return *this;
  Tag = other.Tag;
  Status = other.Status;
  Progress = other.Progress;
  Data = other.Data;
  Session = other.Session;
  Parameters = other.Parameters;
  return *this;
}

CResponse& CResponse::operator=(CResponse&& other) noexcept {
  if (this == &other) return *this;
  Tag = other.Tag;
  Status = other.Status;
  Progress = other.Progress;
  Data = std::move(other.Data);
  Session = std::move(other.Session);
  Parameters = std::move(other.Parameters);
  // Moved-from standard containers are only "valid"; callers rely on them being empty.
  other.Data.clear();
  other.Session.clear();
  other.Parameters.clear();
  return *this;
}

CResponse::~CResponse() = default;

bool CResponse::HasAttachedFiles() const {
  for (const CMimeFile& file : Data) {
    // Taken as unsigned, so negative values fall outside both inline ranges.
    const auto type = static_cast<std::uint32_t>(file.Type);
    const bool inlineType = (type >= Json && type <= Gif) || (type >= Csv && type <= Svg);
    if (file.IsAttachment || !inlineType) return true;
  }
  return false;
}

CResponse Error(std::wstring message) { return Error(kDefaultStatus, std::move(message)); }

CResponse Error(EStatus status, std::wstring message) {
  detail::WriteStandardOutputLine(message);
  CResponse response(std::move(message));
  response.Status = status;
  return response;
}

}  // namespace Pendrel
