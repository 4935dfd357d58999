#include <unistd.h>  // readlink

#include <ctime>

#include "handler/detail/HostSystem.h"
#include "json/TextConversion.h"

namespace CTolvane::detail {

std::wstring HostProgramFolder() {
  std::string path(4096, '\0');
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0 || static_cast<std::size_t>(length) >= path.size()) return std::wstring();
  path.resize(static_cast<std::size_t>(length));
  const std::size_t slash = path.rfind('/');
  return Pendrel::Utf8ToUtf16(path.substr(0, slash + 1));
}

LocalTime CurrentLocalTime() {
  const std::time_t now = std::time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  return {local.tm_mday, local.tm_mon + 1, local.tm_year + 1900,
          local.tm_hour, local.tm_min,     local.tm_sec};
}

}  // namespace CTolvane::detail
