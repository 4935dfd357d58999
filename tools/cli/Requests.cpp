#include "tools/cli/Requests.h"

#include <utility>  // std::move
#include <vector>

#include "tools/cli/ExitCodes.h"
#include "tools/cli/Files.h"
#include "tools/cli/RequestDocument.h"
#include "tools/cli/Text.h"

namespace PendrelCli {
namespace {

void Store(const std::vector<CKeyValue>& pairs, Pendrel::CKeyValueMap& into) {
  for (const CKeyValue& pair : pairs) {
    into[UpperKey(WideFromUtf8(pair.Key))] = WideFromUtf8(pair.Value);
  }
}

}  // namespace

bool LoadInputFile(const std::string& path, Pendrel::CMimeFile& file) {
  std::string data;
  if (!ReadWholeFile(path, data)) return false;
  file.FileName = WideFromUtf8(LastPathPart(path));
  const std::size_t dot = file.FileName.rfind(L'.');
  file.Name = dot == std::wstring::npos ? file.FileName : file.FileName.substr(0, dot);
  file.Type = Pendrel::GetMimeTypeByFileExt(file.FileName);
  file.Data = std::move(data);
  return true;
}

CRequestResult BuildRequest(const CCliOptions& options, Pendrel::CRequest& request) {
  if (!options.RequestFile.empty()) {
    std::string document;
    if (!ReadWholeFile(options.RequestFile, document)) {
      return {kExitNoInput, "cannot read the request document \"" + options.RequestFile +
                                "\": " + ReadErrorText(options.RequestFile)};
    }
    // CRequest::FromJsonString reads anything, text that is not JSON as an empty request: the
    // document is checked strictly first.
    const std::string problem = CheckRequestDocument(document);
    if (!problem.empty()) {
      return {kExitDataError,
              "the request document \"" + options.RequestFile + "\" is not valid: " + problem};
    }
    if (!request.FromJsonString(document)) {
      return {kExitDataError, "the request document \"" + options.RequestFile +
                                  "\" is not a request's JSON document"};
    }
  }
  if (options.CommandWord) request.Command = WideFromUtf8(*options.CommandWord);
  if (options.Attribute) request.CommandAtribute = WideFromUtf8(*options.Attribute);
  Store(options.RequestParams, request.RequestParams);
  Store(options.CommandParams, request.CommandParams);
  for (const std::string& path : options.Files) {
    Pendrel::CMimeFile file;
    if (!LoadInputFile(path, file)) {
      return {kExitNoInput, "cannot read the file \"" + path + "\": " + ReadErrorText(path)};
    }
    request.InputData.push_back(std::move(file));
  }
  return {};
}

}  // namespace PendrelCli
