// Linux side of Platform.h.
#include <cerrno>
#include <cstdlib>  // getenv, setenv, unsetenv

#include "json/TextConversion.h"
#include "tests/support/Platform.h"

namespace pendrel_test {
namespace {

void SetVariable(const std::string& name, const std::optional<std::string>& value) {
  if (value) {
    ::setenv(name.c_str(), value->c_str(), 1);
  } else {
    ::unsetenv(name.c_str());
  }
}

}  // namespace

std::string NativePath(std::string_view path) { return std::string(path); }

std::wstring ProgramPathFromBuild(std::string_view path) {
  return Pendrel::Utf8ToUtf16(NativePath(path));
}

std::uint32_t PeerGoneCode() { return EPIPE; }

ScopedEnvironmentVariable::ScopedEnvironmentVariable(std::string name,
                                                     const std::optional<std::string>& value)
    : m_name(std::move(name)) {
  if (const char* old = std::getenv(m_name.c_str())) m_old = old;
  SetVariable(m_name, value);
}

ScopedEnvironmentVariable::~ScopedEnvironmentVariable() { SetVariable(m_name, m_old); }

}  // namespace pendrel_test
