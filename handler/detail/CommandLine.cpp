#include "handler/detail/CommandLine.h"

#include <cstdint>
#include <deque>
#include <iterator>  // std::make_move_iterator
#include <mutex>

#include "base/Random.h"
#include "handler/detail/TestSeams.h"
#include "json/TextConversion.h"

namespace CTolvane::detail {
namespace {

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t'; }

// The handler's own arguments, without the path.
std::vector<std::wstring> FixedArguments(const std::wstring& pipeName, int mode) {
  return {L"_MN_=" + pipeName, Pendrel::FormatWString(L"_DM_=%d", mode), L"_EX_=2"};
}

}  // namespace

std::wstring QuoteCommandPath(const std::wstring& path) {
  if (path.find_first_of(L" \t+") == std::wstring::npos) return path;
  return L'"' + path + L'"';
}

std::wstring BuildCommandLine(const std::wstring& path, const std::wstring& pipeName, int mode,
                              const std::wstring& extraArguments) {
  std::wstring line = QuoteCommandPath(path);
  for (const std::wstring& argument : FixedArguments(pipeName, mode)) line += L' ' + argument;
  if (!extraArguments.empty()) line += L' ' + extraArguments;
  return line;
}

std::vector<std::wstring> BuildArgumentVector(const std::wstring& path,
                                              const std::wstring& pipeName, int mode,
                                              const std::wstring& extraArguments) {
  std::vector<std::wstring> arguments{path};
  for (std::wstring& argument : FixedArguments(pipeName, mode)) {
    arguments.push_back(std::move(argument));
  }
  for (std::wstring& argument : SplitArguments(extraArguments)) {
    arguments.push_back(std::move(argument));
  }
  return arguments;
}

std::vector<std::wstring> SplitArguments(const std::wstring& text) {
  std::vector<std::wstring> arguments;
  std::wstring current;
  bool inArgument = false;
  bool quoted = false;
  for (wchar_t c : text) {
    if (c == L'"') {
      quoted = !quoted;
      inArgument = true;  // "" is an empty argument
    } else if (IsBlank(c) && !quoted) {
      if (inArgument) arguments.push_back(std::move(current));
      current.clear();
      inArgument = false;
    } else {
      current += c;
      inArgument = true;
    }
  }
  if (inArgument) arguments.push_back(std::move(current));
  return arguments;
}

namespace {

std::mutex g_nextNamesMutex;
std::deque<std::wstring> g_nextNames;  // guarded by g_nextNamesMutex

}  // namespace

void SetNextPipeNames(std::vector<std::wstring> names) {
  const std::lock_guard<std::mutex> lock(g_nextNamesMutex);
  g_nextNames.assign(std::make_move_iterator(names.begin()), std::make_move_iterator(names.end()));
}

std::wstring MakePipeName() {
  {
    const std::lock_guard<std::mutex> lock(g_nextNamesMutex);
    if (!g_nextNames.empty()) {
      std::wstring name = std::move(g_nextNames.front());
      g_nextNames.pop_front();
      return name;
    }
  }
  const std::uint64_t bits = Pendrel::base::RandomBits();
  const auto first = static_cast<unsigned>(bits & 0x7FFF);
  const auto second = static_cast<unsigned>((bits >> 16) & 0x7FFF);
  return Pendrel::FormatWString(L"%X%X", first, second);
}

}  // namespace CTolvane::detail
