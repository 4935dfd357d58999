// PendrelServer::ReadRequest on arbitrary HTTP requests: the input's first five lines are the
// method, the path, the query, the Content-Type and the Content-Disposition, the rest is the
// body. Reading must never crash, and says why exactly when it fails. What it reads is then
// answered: AnswerOf on a response carrying the request's files, whose multipart answer is
// read back into as many files.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/FuzzCheck.h"
#include "tools/server/forms/HttpForms.h"

namespace {

// The next line of `input` (without its LF); the whole rest when there is no LF.
std::string TakeLine(std::string_view& input) {
  const std::size_t lf = input.find('\n');
  const std::string line(input.substr(0, lf));
  input.remove_prefix(lf == std::string_view::npos ? input.size() : lf + 1);
  return line;
}

// Whether a name survives being written between quotes in a part's header: the library
// escapes nothing, so a quote or a line end in it changes the header; and a part's header
// fields are bounded in size.
bool NameSurvivesQuoting(const std::wstring& name) {
  return name.find_first_of(L"\"\r\n") == std::wstring::npos && name.size() < 1000;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input = pendrel_fuzz::AsText(data, size);
  PendrelServer::CHttpRequestParts parts;
  parts.Method = TakeLine(input);
  parts.Path = TakeLine(input);
  parts.Query = TakeLine(input);
  parts.ContentType = TakeLine(input);
  parts.ContentDisposition = TakeLine(input);
  parts.Body = std::string(input);

  PendrelServer::CReadRequest read;
  const bool ok = PendrelServer::ReadRequest(std::move(parts), read);
  PENDREL_FUZZ_CHECK(ok == read.Problem.empty());
  if (!ok) return 0;

  Pendrel::CResponse response;
  response.Data = read.Request.InputData;
  const PendrelServer::CHttpAnswer answer = PendrelServer::AnswerOf(response);
  PENDREL_FUZZ_CHECK(!answer.Fields.empty());
  if (response.Data.size() < 2) return 0;
  for (const Pendrel::CMimeFile& file : response.Data) {
    if (!NameSurvivesQuoting(file.Name) || !NameSurvivesQuoting(file.FileName)) return 0;
  }
  PendrelServer::CHttpRequestParts again;
  again.Path = "/ECHO";
  again.ContentType = answer.Fields.front().second;
  again.Body = answer.Body;
  PendrelServer::CReadRequest back;
  PENDREL_FUZZ_CHECK(PendrelServer::ReadRequest(std::move(again), back));
  PENDREL_FUZZ_CHECK(back.Request.InputData.size() == response.Data.size());
  for (std::size_t i = 0; i < response.Data.size(); ++i) {
    PENDREL_FUZZ_CHECK(back.Request.InputData[i].Data == response.Data[i].Data);
  }
  return 0;
}
