// CRequest::FromJsonString on arbitrary text, then every form of the record read. Reading
// never fails for want of memory at these sizes, so it must return true. What was read and
// written once is in the writer's form: reading and writing it again gives the same text,
// unless a key cannot come back as itself (see KeySurvivesWriting).
#include <string>

#include "fuzz/FuzzCheck.h"
#include "message/CRequest.h"

namespace {

bool KeysSurviveWriting(const Pendrel::CRequest& request) {
  for (const auto* map : {&request.CommandParams, &request.RequestParams}) {
    for (const auto& entry : *map) {
      if (!pendrel_fuzz::KeySurvivesWriting(entry.first)) return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Pendrel::CRequest request;
  PENDREL_FUZZ_CHECK(request.FromJsonString(std::string(pendrel_fuzz::AsText(data, size))));

  const std::string written = request.ToJsonString();
  std::string header;
  std::string body;
  request.ToHttpRequestData(header, body);
  (void)request.ToHttpURL(L"host", L"session");

  if (!KeysSurviveWriting(request)) return 0;
  Pendrel::CRequest again;
  PENDREL_FUZZ_CHECK(again.FromJsonString(written));
  PENDREL_FUZZ_CHECK(again.ToJsonString() == written);
  return 0;
}
