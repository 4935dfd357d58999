// Windows side of Platform.h.
#include <windows.h>

#include <cstdlib>  // _wgetenv, _wputenv_s

#include "json/TextConversion.h"
#include "tests/support/Platform.h"

namespace pendrel_test {

std::string NativePath(std::string_view path) {
  if (path.empty() || path.front() != '/') return std::string(path);
  std::string native = "Z:" + std::string(path);
  for (char& c : native) {
    if (c == '/') c = '\\';
  }
  return native;
}

std::pair<int, int> AbortedProcessEnd() { return {2, 3}; }

std::uint32_t PeerGoneCode() { return ERROR_BROKEN_PIPE; }

std::string TextModeLineEnd() { return "\r\n"; }

std::optional<std::string> EnvironmentValue(const std::string& name) {
  if (const wchar_t* value = ::_wgetenv(Pendrel::Utf8ToUtf16(name).c_str())) {
    return Pendrel::Utf16ToUtf8(value);
  }
  return std::nullopt;
}

void SetEnvironmentValue(const std::string& name, const std::optional<std::string>& value) {
  // An empty value removes the variable.
  ::_wputenv_s(Pendrel::Utf8ToUtf16(name).c_str(),
               value ? Pendrel::Utf8ToUtf16(*value).c_str() : L"");
}

}  // namespace pendrel_test
