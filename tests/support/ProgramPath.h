// The path a test program starts one of the build's programs by. A Windows build tested
// under Wine was given the Linux path of the build folder; Wine shows the Linux root as
// drive Z:.
#pragma once

#include <string>

namespace pendrel_test {

inline std::wstring ProgramPathFromBuild(const std::string& path) {
  std::wstring wide(path.begin(), path.end());
#ifdef _WIN32
  if (!wide.empty() && wide.front() == L'/') {
    for (wchar_t& c : wide) {
      if (c == L'/') c = L'\\';
    }
    wide.insert(0, L"Z:");
  }
#endif
  return wide;
}

}  // namespace pendrel_test
