#include "tools/cli/Output.h"

#include <algorithm>  // std::find, std::replace_if
#include <cstdint>
#include <cstring>  // std::strchr

#include "tools/cli/Files.h"
#include "tools/cli/Text.h"

namespace PendrelCli {
namespace {

std::string Pair(std::int32_t position, std::int32_t total) {
  return std::to_string(position) + "/" + std::to_string(total);
}

// Characters that no file name may hold on one of the platforms; replacing them everywhere
// saves a response the same way on both.
bool IsUnsafe(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7F || std::strchr("/\\:*?\"<>|", c);
}

}  // namespace

std::string RenderResponse(const Pendrel::CResponse& response, EOutputForm form) {
  switch (form) {
    case EOutputForm::Common:
      return response.ToCommonJsonString() + "\n";
    case EOutputForm::Http: {
      std::string header;
      std::string body;
      response.ToHttpRequestData(header, body);
      return header + "\n\n" + body;
    }
    case EOutputForm::Json:
      break;
  }
  return response.ToJsonString() + "\n";
}

std::string ProgressLine(const Pendrel::CProgress& progress) {
  if (!progress.IsSet) return "";
  return "progress: phase " + Pair(progress.PhasePos, progress.PhaseTotal) + ", phase progress " +
         Pair(progress.PhaseProgressPos, progress.PhaseProgressTotal) + ", task " +
         Pair(progress.TaskProgressPos, progress.TaskProgressTotal) + ", time " +
         std::to_string(progress.TaskProgressTime) + "\n";
}

std::vector<std::string> SaveNames(const Pendrel::CResponse& response) {
  std::vector<std::string> names;
  for (std::size_t i = 0; i < response.Data.size(); ++i) {
    const std::string number = std::to_string(i + 1);
    std::string name = Utf8FromWide(response.Data[i].FileName);
    std::replace_if(name.begin(), name.end(), IsUnsafe, '_');
    if (name.empty() || name == "." || name == "..") name = "file" + number;
    if (std::find(names.begin(), names.end(), name) != names.end()) name = number + "-" + name;
    names.push_back(name);
  }
  return names;
}

bool SaveFiles(const Pendrel::CResponse& response, const std::string& folder, std::string& error) {
  if (!MakeFolder(folder)) {
    error = "cannot make the folder \"" + folder + "\"";
    return false;
  }
  const std::vector<std::string> names = SaveNames(response);
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (!WriteWholeFile(folder, names[i], response.Data[i].Data)) {
      error = "cannot write \"" + names[i] + "\" into \"" + folder + "\"";
      return false;
    }
  }
  return true;
}

}  // namespace PendrelCli
