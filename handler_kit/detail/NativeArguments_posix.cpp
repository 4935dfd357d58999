#include "handler_kit/detail/NativeArguments.h"

#include <fstream>
#include <iterator>  // std::istreambuf_iterator

#include "json/TextConversion.h"

namespace PendrelKit::detail {

// The library writes a handler's arguments with its own UTF-8 converter; reading them back
// with its counterpart gives the library's wide text unit for unit.
std::wstring NarrowArgumentToWide(std::string_view argument) {
  return Pendrel::Utf8ToUtf16(argument);
}

std::vector<std::wstring> ReadProcessArguments() {
  // Linux keeps the argument vector as zero-terminated strings one after the other.
  std::ifstream file("/proc/self/cmdline", std::ios::binary);
  if (!file) return {};
  const std::string all{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  std::vector<std::wstring> arguments;
  std::size_t start = 0;
  while (start < all.size()) {
    std::size_t end = all.find('\0', start);
    if (end == std::string::npos) end = all.size();
    arguments.push_back(NarrowArgumentToWide(std::string_view(all).substr(start, end - start)));
    start = end + 1;
  }
  return arguments;
}

}  // namespace PendrelKit::detail
