// CResponse::FromJsonString on arbitrary text, then every form of the record written. As for
// requests: reading must succeed, and what was read and written once reads and writes back
// to the same text unless a parameter key cannot come back as itself (KeySurvivesWriting).
#include <string>

#include "fuzz/FuzzCheck.h"
#include "message/CResponse.h"

namespace {

// The session is written only when it is not empty: one that the writer cuts to nothing
// would go missing on the second pass.
bool TextsSurviveWriting(const Pendrel::CResponse& response) {
  if (!pendrel_fuzz::TextSurvivesWriting(response.Session)) return false;
  for (const auto& entry : response.Parameters) {
    if (!pendrel_fuzz::KeySurvivesWriting(entry.first)) return false;
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

  if (!TextsSurviveWriting(response)) return 0;
  Pendrel::CResponse again;
  PENDREL_FUZZ_CHECK(again.FromJsonString(written));
  PENDREL_FUZZ_CHECK(again.ToJsonString() == written);
  return 0;
}
