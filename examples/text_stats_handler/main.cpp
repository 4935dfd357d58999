// pendrel-text-stats: an example handler program, and a template for writing one.
//
// The host starts it as
//   pendrel-text-stats _MN_=<pipe name> _DM_=<mode> _EX_=2 [--max-bytes N]
// It reads that command line, fills the handler kit with its answers (TextStatsHandler.h)
// and lets the kit serve the pipe until the host closes it. --max-bytes sets the largest
// input file it takes (default 16 MiB), which it also reports as its input file size.
#include <cstdio>
#include <string>
#include <vector>

#include "TextStats.h"
#include "TextStatsHandler.h"
#include "handler_kit/HandlerKit.h"

namespace {

// Reads the host's extra arguments; false, with `problem`, for one this handler does not
// know.
bool ReadExtraArguments(const std::vector<std::wstring>& extra, std::uint64_t& maxBytes,
                        std::string& problem) {
  for (std::size_t i = 0; i < extra.size(); ++i) {
    if (extra[i] == L"--max-bytes" && i + 1 < extra.size()) {
      const std::wstring& value = extra[++i];
      if (value.empty() || value.size() > 15 ||
          value.find_first_not_of(L"0123456789") != std::wstring::npos) {
        problem = "--max-bytes takes a number of bytes";
        return false;
      }
      maxBytes = std::stoull(value);
    } else {
      problem = "unknown argument " + TextStats::Utf8(extra[i]);
      return false;
    }
  }
  return true;
}

}  // namespace

int main() {
  // The wide arguments: on Windows main's narrow ones lose what the ANSI code page cannot
  // hold.
  PendrelKit::CHandlerArguments arguments;
  const PendrelKit::EArgumentError error =
      PendrelKit::ParseArguments(PendrelKit::ProcessArguments(), arguments);
  if (error != PendrelKit::EArgumentError::None) {
    // Standard error only: a handler's standard output may be its host's.
    const std::vector<std::wstring> all = PendrelKit::ProcessArguments();
    const std::string program = all.empty() ? "pendrel-text-stats" : TextStats::Utf8(all[0]);
    std::fprintf(stderr, "%s\n", PendrelKit::StartedByHandText(program, error).c_str());
    return PendrelKit::kExitBadArguments;
  }
  std::string problem;
  std::uint64_t maxBytes = TextStats::kDefaultMaxInputBytes;
  if (problem.empty()) ReadExtraArguments(arguments.ExtraArguments, maxBytes, problem);
  if (!problem.empty()) {
    std::fprintf(stderr, "pendrel-text-stats: %s\n", problem.c_str());
    return PendrelKit::kExitBadArguments;
  }

  TextStats::CTextStatsHandler handler(maxBytes);
  PendrelKit::CHandlerKit kit;
  handler.Attach(kit);
  return kit.Run(arguments);
}
