// The test handler's own arguments (see TestHandler.h for their meaning), read from the
// extra arguments the library passes after _MN_=, _DM_= and _EX_=.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "handler_kit/HandlerMessages.h"

namespace pendrel_test {

struct TestHandlerOptions {
  std::wstring recordFile;  // empty: no record
  std::wstring doneFile;    // empty: none
  PendrelKit::CHandlerDescription info;
  std::wstring libVersion;
  std::wstring inputFileSize;
  std::set<std::wstring> omit;
  unsigned delayMs = 0;
  bool neverAnswer = false;
  bool notJson = false;
  unsigned flood = 0;
  std::optional<unsigned> exitAfter;
  bool exitBeforeConnect = false;
  bool neverConnect = false;
  unsigned lifetimeMs = 0;  // 0: no limit
  std::optional<unsigned> crashMidAnswer;
  bool lyingHeader = false;
  unsigned brokenAt = 1;
  std::optional<unsigned> exitCode;
  std::wstring print;      // empty: prints nothing
  std::wstring reportEnv;  // empty: reports no variable
  bool abortOnRequest = false;
  bool hangInRequest = false;
  std::optional<unsigned> closeGraceMs;
  std::wstring pidFile;  // empty: none
};

// Fills `options` (defaults first) from `arguments`; false with a text in `error` for an
// unknown option, a missing value or a value that is not what the option takes.
bool ParseTestHandlerOptions(const std::vector<std::wstring>& arguments,
                             TestHandlerOptions& options, std::wstring& error);

}  // namespace pendrel_test
