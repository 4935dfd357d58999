#include "TextStatsHandler.h"

#include <utility>  // std::move

#include "TextStats.h"

namespace TextStats {
namespace {

constexpr wchar_t kStats[] = L"STATS";
constexpr wchar_t kCsvToJson[] = L"CSV2JSON";

Pendrel::CMimeFile OutputFile(Pendrel::EMimeType type, const std::wstring& name,
                              const std::wstring& extension, std::string data) {
  Pendrel::CMimeFile file;
  file.Type = type;
  file.Name = name;
  file.FileName = name + extension;
  file.Data = std::move(data);
  file.IsAttachment = false;  // text a client may show inline
  return file;
}

// The field separator of the request's DELIMITER; false when it names none.
bool ReadDelimiter(const Pendrel::CRequest& request, char& delimiter) {
  const std::wstring text = request.GetRequestValue(L"DELIMITER");
  if (text.empty()) {
    delimiter = ',';
  } else if (text == L"TAB") {
    delimiter = '\t';
  } else if (text.size() == 1 && text[0] > L' ' && text[0] < 0x7F && text[0] != L'"') {
    delimiter = static_cast<char>(text[0]);
  } else {
    return false;
  }
  return true;
}

std::wstring Describe(const CCounts& counts) {
  return std::to_wstring(counts.Lines) + L" lines, " + std::to_wstring(counts.Words) + L" words, " +
         std::to_wstring(counts.Bytes) + L" bytes";
}

// The progress of a finished count: one phase per file, the last file's bytes within its
// phase, all bytes for the task, and no time left.
Pendrel::CProgress Finished(const std::vector<CFileCounts>& files, std::uint64_t totalBytes) {
  Pendrel::CProgress progress;
  const auto clamp = [](std::uint64_t n) {
    return static_cast<std::int32_t>(n > 0x7FFFFFFF ? 0x7FFFFFFF : n);
  };
  progress.PhasePos = progress.PhaseTotal = clamp(files.size());
  progress.PhaseProgressPos = progress.PhaseProgressTotal = clamp(files.back().Counts.Bytes);
  progress.TaskProgressPos = progress.TaskProgressTotal = clamp(totalBytes);
  progress.TaskProgressTime = 0;
  progress.IsSet = true;
  return progress;
}

}  // namespace

CTextStatsHandler::CTextStatsHandler(std::uint64_t maxInputBytes)
    : m_maxInputBytes(maxInputBytes) {}

void CTextStatsHandler::Attach(PendrelKit::CHandlerKit& kit) {
  kit.Info = {L"Text statistics",
              L"Counts lines, words and bytes of text files and converts CSV to JSON", L"1.0"};
  kit.Tasks[kStats] = {L"Text statistics",
                       L"Lines, words and bytes of every input file; REPORT=files answers "
                       L"with the tables stats.csv and stats.json"};
  kit.Tasks[kCsvToJson] = {L"CSV to JSON",
                           L"Every input file from CSV to a JSON array of objects named by "
                           L"its header; DELIMITER sets the field separator"};
  kit.InputFileSize = m_maxInputBytes;
  kit.OnRequest = [this](const Pendrel::CRequest& request) { return OnRequest(request); };
  kit.OnCreateSession = [this](const PendrelKit::CSessionInfo& session) {
    return OnCreateSession(session);
  };
  kit.OnCloseSession = [this] { OnCloseSession(); };
  kit.OnAllOutputFiles = [this] { return OnAllOutputFiles(); };
}

Pendrel::CResponse CTextStatsHandler::OnRequest(const Pendrel::CRequest& request) {
  if (request.Command == kStats) return Stats(request);
  if (request.Command == kCsvToJson) return CsvToJson(request);
  return Pendrel::CResponse(L"unknown command \"" + request.Command +
                            L"\"; this handler knows STATS and CSV2JSON");
}

Pendrel::CResponse CTextStatsHandler::OnCreateSession(const PendrelKit::CSessionInfo& session) {
  m_session = session.SessionKey;
  m_outputFiles.clear();
  Pendrel::CResponse response = Answer();
  response.Parameters[L"User"] = session.User;
  return response;
}

void CTextStatsHandler::OnCloseSession() { m_session.clear(); }

Pendrel::CResponse CTextStatsHandler::OnAllOutputFiles() const {
  Pendrel::CResponse response = Answer();
  response.Data = m_outputFiles;
  return response;
}

Pendrel::CResponse CTextStatsHandler::Stats(const Pendrel::CRequest& request) {
  if (const std::wstring problem = CheckInput(request); !problem.empty()) {
    return Pendrel::CResponse(problem);
  }
  const std::wstring report = request.GetRequestValue(L"REPORT");
  if (!report.empty() && report != L"values" && report != L"files") {
    return Pendrel::CResponse(L"REPORT takes values or files, not \"" + report + L"\"");
  }

  Pendrel::CResponse response = Answer();
  std::vector<CFileCounts> files;
  CCounts total;
  for (const Pendrel::CMimeFile& input : request.InputData) {
    const CCounts counts = CountText(input.Data);
    files.push_back({Utf8(input.FileName), counts});
    total.Lines += counts.Lines;
    total.Words += counts.Words;
    total.Bytes += counts.Bytes;
    response.Parameters[input.FileName] = Describe(counts);
  }
  response.Parameters[L"FILES"] = std::to_wstring(files.size());
  response.Parameters[L"LINES"] = std::to_wstring(total.Lines);
  response.Parameters[L"WORDS"] = std::to_wstring(total.Words);
  response.Parameters[L"BYTES"] = std::to_wstring(total.Bytes);
  response.Progress = Finished(files, total.Bytes);

  std::vector<Pendrel::CMimeFile> tables = {
      OutputFile(Pendrel::Csv, L"stats", L".csv", CountsCsv(files)),
      OutputFile(Pendrel::Json, L"stats", L".json", CountsJson(files))};
  m_outputFiles.insert(m_outputFiles.end(), tables.begin(), tables.end());
  // A host reads an answer with files as a file list and nothing else, so the tables and
  // the values are two answers.
  if (report == L"files") {
    Pendrel::CResponse filesAnswer = Answer();
    filesAnswer.Data = std::move(tables);
    return filesAnswer;
  }
  return response;
}

Pendrel::CResponse CTextStatsHandler::CsvToJson(const Pendrel::CRequest& request) {
  if (const std::wstring problem = CheckInput(request); !problem.empty()) {
    return Pendrel::CResponse(problem);
  }
  char delimiter = ',';
  if (!ReadDelimiter(request, delimiter)) {
    return Pendrel::CResponse(L"DELIMITER takes one character or TAB");
  }
  Pendrel::CResponse response = Answer();
  for (const Pendrel::CMimeFile& input : request.InputData) {
    response.Data.push_back(OutputFile(Pendrel::Json, input.Name, L".json",
                                       TextStats::CsvToJson(input.Data, delimiter)));
  }
  m_outputFiles.insert(m_outputFiles.end(), response.Data.begin(), response.Data.end());
  return response;
}

std::wstring CTextStatsHandler::CheckInput(const Pendrel::CRequest& request) const {
  if (request.InputData.empty()) return request.Command + L" needs at least one input file";
  for (const Pendrel::CMimeFile& input : request.InputData) {
    if (input.Data.size() > m_maxInputBytes) {
      return input.FileName + L" is larger than the " + std::to_wstring(m_maxInputBytes) +
             L" bytes this handler takes";
    }
  }
  return L"";
}

Pendrel::CResponse CTextStatsHandler::Answer() const {
  Pendrel::CResponse response(static_cast<Pendrel::EStatus>(0));
  response.Session = m_session;
  return response;
}

}  // namespace TextStats
