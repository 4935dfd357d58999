// Windows side of Platform.h.
#include <windows.h>

#include <cstdlib>  // _wgetenv, _wputenv_s

#include "json/TextConversion.h"
#include "tests/support/Platform.h"

namespace pendrel_test {
namespace {

void SetVariable(const std::wstring& name, const std::optional<std::wstring>& value) {
  // An empty value removes the variable.
  ::_wputenv_s(name.c_str(), value ? value->c_str() : L"");
}

}  // namespace

std::string NativePath(std::string_view path) {
  if (path.empty() || path.front() != '/') return std::string(path);
  std::string native = "Z:" + std::string(path);
  for (char& c : native) {
    if (c == '/') c = '\\';
  }
  return native;
}

std::wstring ProgramPathFromBuild(std::string_view path) {
  return Pendrel::Utf8ToUtf16(NativePath(path));
}

std::uint32_t PeerGoneCode() { return ERROR_BROKEN_PIPE; }

ScopedEnvironmentVariable::ScopedEnvironmentVariable(std::string name,
                                                     const std::optional<std::string>& value)
    : m_name(std::move(name)) {
  const std::wstring wideName = Pendrel::Utf8ToUtf16(m_name);
  if (const wchar_t* old = ::_wgetenv(wideName.c_str())) m_old = Pendrel::Utf16ToUtf8(old);
  SetVariable(wideName,
              value ? std::optional<std::wstring>(Pendrel::Utf8ToUtf16(*value)) : std::nullopt);
}

ScopedEnvironmentVariable::~ScopedEnvironmentVariable() {
  SetVariable(Pendrel::Utf8ToUtf16(m_name),
              m_old ? std::optional<std::wstring>(Pendrel::Utf8ToUtf16(*m_old)) : std::nullopt);
}

}  // namespace pendrel_test
