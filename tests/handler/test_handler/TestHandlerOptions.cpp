#include "tests/handler/test_handler/TestHandlerOptions.h"

#include <cstdint>

#include "tests/handler/test_handler/TestHandler.h"

namespace pendrel_test {
namespace {

bool ParseCount(const std::wstring& text, unsigned& value) {
  if (text.empty() || text.size() > 9) return false;
  std::uint32_t result = 0;
  for (wchar_t c : text) {
    if (c < L'0' || c > L'9') return false;
    result = result * 10 + static_cast<std::uint32_t>(c - L'0');
  }
  value = result;
  return true;
}

std::vector<std::wstring> SplitAtCommas(const std::wstring& text) {
  std::vector<std::wstring> parts(1);
  for (wchar_t c : text) {
    if (c == L',') {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

// The option's field when `name` is a flag (an option without a value); null otherwise.
bool* FlagOf(const std::wstring& name, TestHandlerOptions& options) {
  static constexpr struct {
    const wchar_t* name;
    bool TestHandlerOptions::*field;
  } kFlags[] = {
      {L"--never-answer", &TestHandlerOptions::neverAnswer},
      {L"--not-json", &TestHandlerOptions::notJson},
      {L"--exit-before-connect", &TestHandlerOptions::exitBeforeConnect},
      {L"--never-connect", &TestHandlerOptions::neverConnect},
      {L"--lying-header", &TestHandlerOptions::lyingHeader},
      {L"--abort-on-request", &TestHandlerOptions::abortOnRequest},
      {L"--hang-in-request", &TestHandlerOptions::hangInRequest},
  };
  for (const auto& flag : kFlags) {
    if (name == flag.name) return &(options.*flag.field);
  }
  return nullptr;
}

}  // namespace

bool ParseTestHandlerOptions(const std::vector<std::wstring>& arguments,
                             TestHandlerOptions& options, std::wstring& error) {
  options = TestHandlerOptions();
  options.info = {kDefaultHandlerName, kDefaultHandlerDescription, kDefaultHandlerVersion};
  options.libVersion = kDefaultLibVersion;
  options.inputFileSize = kDefaultInputFileSize;

  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::wstring& name = arguments[i];
    // Flags first; every other option takes the next argument as its value.
    if (bool* flag = FlagOf(name, options)) {
      *flag = true;
      continue;
    }
    if (i + 1 >= arguments.size()) {
      error = L"unknown option or missing value: " + name;
      return false;
    }
    const std::wstring& value = arguments[++i];
    unsigned number = 0;
    const bool isCount = ParseCount(value, number);
    bool valid = true;
    if (name == L"--record") {
      options.recordFile = value;
    } else if (name == L"--done") {
      options.doneFile = value;
    } else if (name == L"--info") {
      const std::vector<std::wstring> parts = SplitAtCommas(value);
      valid = parts.size() == 3;
      if (valid) options.info = {parts[0], parts[1], parts[2]};
    } else if (name == L"--lib-version") {
      options.libVersion = value;
    } else if (name == L"--input-file-size") {
      options.inputFileSize = value;
    } else if (name == L"--omit") {
      options.omit.insert(value);
    } else if (name == L"--delay-ms") {
      valid = isCount;
      options.delayMs = number;
    } else if (name == L"--flood") {
      valid = isCount;
      options.flood = number;
    } else if (name == L"--exit-after") {
      valid = isCount;
      options.exitAfter = number;
    } else if (name == L"--lifetime-ms") {
      valid = isCount;
      options.lifetimeMs = number;
    } else if (name == L"--crash-mid-answer") {
      valid = isCount;
      options.crashMidAnswer = number;
    } else if (name == L"--exit-code") {
      valid = isCount && number < 256;
      options.exitCode = number;
    } else if (name == L"--print") {
      options.print = value;
    } else if (name == L"--pid-file") {
      options.pidFile = value;
    } else if (name == L"--report-env") {
      options.reportEnv = value;
    } else if (name == L"--close-grace-ms") {
      valid = isCount;
      options.closeGraceMs = number;
    } else if (name == L"--broken-at") {
      valid = isCount && number > 0;
      options.brokenAt = number;
    } else {
      error = L"unknown option: " + name;
      return false;
    }
    if (!valid) {
      error = L"bad value for " + name + L": " + value;
      return false;
    }
  }
  return true;
}

}  // namespace pendrel_test
