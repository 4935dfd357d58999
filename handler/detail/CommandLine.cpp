#include "handler/detail/CommandLine.h"

#include <cstdint>

#include "base/Random.h"
#include "json/TextConversion.h"
#include "protocol/HandlerProtocol.h"

namespace CTolvane::detail {
namespace {

bool IsBlank(wchar_t c) { return c == L' ' || c == L'\t'; }

// The handler's own arguments, without the path.
std::vector<std::wstring> FixedArguments(const std::wstring& pipeName, int mode) {
  using Pendrel::protocol::EStartArgument;
  using Pendrel::protocol::StartArgumentPrefix;
  const auto argument = [](EStartArgument which, const std::wstring& value) {
    return std::wstring(StartArgumentPrefix(which)) + value;
  };
  return {argument(EStartArgument::PipeName, pipeName),
          argument(EStartArgument::Mode, std::to_wstring(mode)),
          argument(EStartArgument::ExValue, std::to_wstring(Pendrel::protocol::kExValue))};
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

std::wstring MakePipeName() {
  const std::uint64_t bits = Pendrel::base::RandomBits();
  const auto first = static_cast<unsigned>(bits & 0x7FFF);
  const auto second = static_cast<unsigned>((bits >> 16) & 0x7FFF);
  return Pendrel::FormatWString(L"%X%X", first, second);
}

}  // namespace CTolvane::detail
