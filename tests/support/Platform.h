// What differs between the systems the tests run on, kept in one place: how a test names a
// file of the build, which error number a pipe reports when its peer has gone, how text-mode
// files end their lines, and setting an environment variable for a while. One implementation per
// platform (Platform_posix.cpp, Platform_win.cpp) beside the portable Platform.cpp.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace pendrel_test {

// The path a test program names a file of the build or source tree by, given the path CMake
// knows (UTF-8). Linux: the path as it is. Windows, tested under Wine, which shows the Linux
// root as drive Z:: an absolute Linux path becomes "Z:" followed by it with "\" separators;
// any other path stays as it is.
std::string NativePath(std::string_view path);
// The same as wide text, for starting a program.
std::wstring ProgramPathFromBuild(std::string_view path);

// The error number a pipe reader sees when its peer has closed its end: EPIPE on Linux,
// ERROR_BROKEN_PIPE on Windows.
std::uint32_t PeerGoneCode();

// How std::abort() ends a process, as the handler client's CHandlerExit says it: {How, Code}
// = {3 (Signaled), SIGABRT} on Linux, {2 (Exited), 3} on Windows.
std::pair<int, int> AbortedProcessEnd();

// What a C stream opened in text mode writes for "\n": "\r\n" on Windows, "\n" elsewhere.
std::string TextModeLineEnd();
// `text` as a text-mode stream writes it: every "\n" becomes TextModeLineEnd().
std::string AsTextModeLines(std::string_view text);

// The environment variable `name` of this process (UTF-8), nullopt when it is not set.
std::optional<std::string> EnvironmentValue(const std::string& name);
// Sets the environment variable `name` to `value`, or removes it for nullopt.
void SetEnvironmentValue(const std::string& name, const std::optional<std::string>& value);

// Sets the environment variable `name` of this process to `value` (or removes it, for
// nullopt) while it lives, and then gives it back the value it had, or removes it again if
// it had none. Not thread-safe: environment variables are process-wide.
class ScopedEnvironmentVariable {
 public:
  ScopedEnvironmentVariable(std::string name, const std::optional<std::string>& value);
  ~ScopedEnvironmentVariable();
  ScopedEnvironmentVariable(const ScopedEnvironmentVariable&) = delete;
  ScopedEnvironmentVariable& operator=(const ScopedEnvironmentVariable&) = delete;

 private:
  std::string m_name;
  std::optional<std::string> m_old;
};

}  // namespace pendrel_test
