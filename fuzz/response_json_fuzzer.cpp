// CResponse::FromJsonString on arbitrary text, then every form of the record written. As for
// requests: reading must succeed, and what was read and written once reads and writes back
// to the same text unless a parameter key holds a quote or a backslash.
#include <string>

#include "fuzz/FuzzCheck.h"
#include "message/CResponse.h"

namespace {

bool KeysSurviveWriting(const Pendrel::CResponse& response) {
  for (const auto& entry : response.Parameters) {
    if (entry.first.find_first_of(L"\"\\") != std::wstring::npos) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Pendrel::CResponse response;
  PENDREL_FUZZ_CHECK(response.FromJsonString(std::string(pendrel_fuzz::AsText(data, size))));

  const std::string written = response.ToJsonString();
  (void)response.ToCommonJsonString();
  (void)response.HasAttachedFiles();
  std::string header;
  std::string body;
  response.ToHttpRequestData(header, body);

  if (!KeysSurviveWriting(response)) return 0;
  Pendrel::CResponse again;
  PENDREL_FUZZ_CHECK(again.FromJsonString(written));
  PENDREL_FUZZ_CHECK(again.ToJsonString() == written);
  return 0;
}
