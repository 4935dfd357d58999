#include "tools/cli/Text.h"

#include <cwctype>  // std::towupper

namespace PendrelCli {

std::wstring UpperKey(std::wstring key) {
  for (wchar_t& unit : key) unit = static_cast<wchar_t>(std::towupper(unit));
  return key;
}

std::string TrimEnd(std::string text) {
  const std::size_t end = text.find_last_not_of(" \t\r\n");
  text.erase(end == std::string::npos ? 0 : end + 1);
  return text;
}

}  // namespace PendrelCli
