#include <windows.h>

#include <ctime>

#include "handler/detail/HostSystem.h"

namespace CTolvane::detail {

std::wstring HostProgramFolder() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0) return std::wstring();
    if (length < path.size()) {
      path.resize(length);
      break;
    }
    path.resize(path.size() * 2);  // cut short: try again with more room
  }
  return path.substr(0, path.rfind(L'\\') + 1);
}

LocalTime CurrentLocalTime() {
  const __time64_t now = _time64(nullptr);
  tm local{};
  _localtime64_s(&local, &now);
  return {local.tm_mday, local.tm_mon + 1, local.tm_year + 1900,
          local.tm_hour, local.tm_min,     local.tm_sec};
}

}  // namespace CTolvane::detail
