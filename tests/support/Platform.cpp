// The portable part of Platform.h.
#include "tests/support/Platform.h"

#include <utility>  // std::move

#include "json/TextConversion.h"

namespace pendrel_test {

std::wstring ProgramPathFromBuild(std::string_view path) {
  return Pendrel::Utf8ToUtf16(NativePath(path));
}

std::string AsTextModeLines(std::string_view text) {
  const std::string lineEnd = TextModeLineEnd();
  std::string lines;
  for (char c : text) {
    if (c == '\n') {
      lines += lineEnd;
    } else {
      lines += c;
    }
  }
  return lines;
}

ScopedEnvironmentVariable::ScopedEnvironmentVariable(std::string name,
                                                     const std::optional<std::string>& value)
    : m_name(std::move(name)), m_old(EnvironmentValue(m_name)) {
  SetEnvironmentValue(m_name, value);
}

ScopedEnvironmentVariable::~ScopedEnvironmentVariable() { SetEnvironmentValue(m_name, m_old); }

}  // namespace pendrel_test
