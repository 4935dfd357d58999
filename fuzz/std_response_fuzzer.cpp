// ParseStdResponseFromFileData on a response whose only file is a Json file of arbitrary
// bytes: it either takes the file (a standard response file) or leaves the record as it was.
#include <string>

#include "fuzz/FuzzCheck.h"
#include "message/CResponse.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Pendrel::CMimeFile file;
  file.Type = Pendrel::Json;
  file.FileName = L"response.json";
  file.Data.assign(pendrel_fuzz::AsText(data, size));

  Pendrel::CResponse response;
  response.Parameters[L"kept"] = L"before";
  response.Data.push_back(file);
  const std::string before = response.ToJsonString();
  response.ParseStdResponseFromFileData();

  if (!response.Data.empty()) {
    // Not taken: nothing changed.
    PENDREL_FUZZ_CHECK(response.Data.size() == 1 && response.Data[0].Data == file.Data);
    PENDREL_FUZZ_CHECK(response.ToJsonString() == before);
  }
  (void)response.ToJsonString();
  (void)response.ToCommonJsonString();
  return 0;
}
