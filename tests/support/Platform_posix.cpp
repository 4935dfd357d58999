// Linux side of Platform.h.
#include <signal.h>

#include <cerrno>
#include <cstdlib>  // getenv, setenv, unsetenv

#include "tests/support/Platform.h"

namespace pendrel_test {

std::string NativePath(std::string_view path) { return std::string(path); }

std::pair<int, int> AbortedProcessEnd() { return {3, SIGABRT}; }

std::uint32_t PeerGoneCode() { return EPIPE; }

std::string TextModeLineEnd() { return "\n"; }

std::optional<std::string> EnvironmentValue(const std::string& name) {
  if (const char* value = std::getenv(name.c_str())) return std::string(value);
  return std::nullopt;
}

void SetEnvironmentValue(const std::string& name, const std::optional<std::string>& value) {
  if (value) {
    ::setenv(name.c_str(), value->c_str(), 1);
  } else {
    ::unsetenv(name.c_str());
  }
}

}  // namespace pendrel_test
