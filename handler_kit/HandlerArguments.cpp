#include "handler_kit/HandlerArguments.h"

#include <climits>   // INT_MAX, INT_MIN
#include <iterator>  // std::size
#include <optional>
#include <string_view>

#include "handler_kit/detail/NativeArguments.h"
#include "protocol/HandlerProtocol.h"

namespace PendrelKit {
namespace {

struct ArgumentErrorEntry {
  EArgumentError error;
  const char* text;
};

constexpr ArgumentErrorEntry kErrorTexts[] = {
    {EArgumentError::None, ""},
    {EArgumentError::MissingPipeName, "no pipe name: the _MN_=<name> argument is missing or empty"},
    {EArgumentError::BadMode, "the _DM_= argument is not a decimal number"},
    {EArgumentError::BadExValue, "the _EX_= argument is not a decimal number"},
};

constexpr bool ErrorTextsAreInEnumOrder() {
  for (std::size_t i = 0; i < std::size(kErrorTexts); ++i) {
    if (static_cast<std::size_t>(kErrorTexts[i].error) != i) return false;
  }
  return true;
}
static_assert(ErrorTextsAreInEnumOrder(), "kErrorTexts is indexed by EArgumentError");

using Pendrel::protocol::EStartArgument;
constexpr std::wstring_view kPipeNamePrefix =
    Pendrel::protocol::StartArgumentPrefix(EStartArgument::PipeName);
constexpr std::wstring_view kModePrefix =
    Pendrel::protocol::StartArgumentPrefix(EStartArgument::Mode);
constexpr std::wstring_view kExPrefix =
    Pendrel::protocol::StartArgumentPrefix(EStartArgument::ExValue);

bool StartsWith(std::wstring_view text, std::wstring_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// An optional "-" and decimal digits whose value fits an int; nothing else.
std::optional<int> ParseInt(std::wstring_view text) {
  const bool negative = !text.empty() && text.front() == L'-';
  if (negative) text.remove_prefix(1);
  if (text.empty()) return std::nullopt;
  // Accumulated as a negative number, whose range holds INT_MIN.
  long long value = 0;
  for (wchar_t c : text) {
    if (c < L'0' || c > L'9') return std::nullopt;
    value = value * 10 - (c - L'0');
    if (value < INT_MIN) return std::nullopt;
  }
  if (!negative && -value > INT_MAX) return std::nullopt;
  return static_cast<int>(negative ? value : -value);
}

}  // namespace

const char* ArgumentErrorText(EArgumentError error) {
  const auto index = static_cast<std::size_t>(error);
  return index < std::size(kErrorTexts) ? kErrorTexts[index].text : "";
}

EArgumentError ParseArguments(const std::vector<std::wstring>& arguments,
                              CHandlerArguments& result) {
  CHandlerArguments parsed;
  bool havePipeName = false;
  bool haveMode = false;
  bool haveEx = false;
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    const std::wstring& argument = arguments[i];
    if (!havePipeName && StartsWith(argument, kPipeNamePrefix)) {
      havePipeName = true;
      parsed.PipeName = argument.substr(kPipeNamePrefix.size());
    } else if (!haveMode && StartsWith(argument, kModePrefix)) {
      haveMode = true;
      const std::optional<int> mode =
          ParseInt(std::wstring_view(argument).substr(kModePrefix.size()));
      if (!mode) return EArgumentError::BadMode;
      parsed.Mode = *mode;
    } else if (!haveEx && StartsWith(argument, kExPrefix)) {
      haveEx = true;
      const std::optional<int> ex = ParseInt(std::wstring_view(argument).substr(kExPrefix.size()));
      if (!ex) return EArgumentError::BadExValue;
      parsed.ExValue = *ex;
    } else {
      parsed.ExtraArguments.push_back(argument);
    }
  }
  if (parsed.PipeName.empty()) return EArgumentError::MissingPipeName;
  result = std::move(parsed);
  return EArgumentError::None;
}

EArgumentError ParseArguments(int argc, char** argv, CHandlerArguments& result) {
  std::vector<std::wstring> arguments;
  for (int i = 0; i < argc && argv[i] != nullptr; ++i) {
    arguments.push_back(detail::NarrowArgumentToWide(argv[i]));
  }
  return ParseArguments(arguments, result);
}

EArgumentError ParseArguments(int argc, wchar_t** argv, CHandlerArguments& result) {
  std::vector<std::wstring> arguments;
  for (int i = 0; i < argc && argv[i] != nullptr; ++i) arguments.emplace_back(argv[i]);
  return ParseArguments(arguments, result);
}

std::vector<std::wstring> ProcessArguments() { return detail::ReadProcessArguments(); }

std::string StartedByHandText(const std::string& program, EArgumentError error) {
  const std::string name = program.empty() ? std::string("handler") : program;
  // A path with blanks is quoted, so that the suggested command can be pasted as it stands.
  const std::string quoted =
      name.find_first_of(" \t") == std::string::npos ? name : "\"" + name + "\"";
  return name + ": " + ArgumentErrorText(error) +
         ". This is a pendrel handler: a host starts it and names the pipe to connect to "
         "(_MN_=). To run it by hand: pendrel call " +
         quoted + " --command WORD";
}

}  // namespace PendrelKit
