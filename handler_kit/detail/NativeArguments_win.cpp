#include "handler_kit/detail/NativeArguments.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
// After windows.h, which it needs.
#include <shellapi.h>  // CommandLineToArgvW

#include <climits>  // INT_MAX
#include <memory>

namespace PendrelKit::detail {
namespace {

struct LocalFreeDeleter {
  void operator()(wchar_t** block) const { ::LocalFree(block); }
};

}  // namespace

// The C runtime made main's narrow arguments from the wide command line in the ANSI code
// page; this is the way back (characters outside it are already lost).
std::wstring NarrowArgumentToWide(std::string_view argument) {
  if (argument.empty() || argument.size() > INT_MAX) return {};
  const int size = static_cast<int>(argument.size());
  const int length = ::MultiByteToWideChar(CP_ACP, 0, argument.data(), size, nullptr, 0);
  if (length <= 0) return {};
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  ::MultiByteToWideChar(CP_ACP, 0, argument.data(), size, wide.data(), length);
  return wide;
}

std::vector<std::wstring> ReadProcessArguments() {
  int count = 0;
  const std::unique_ptr<wchar_t*, LocalFreeDeleter> list(
      ::CommandLineToArgvW(::GetCommandLineW(), &count));
  if (!list) return {};
  return std::vector<std::wstring>(list.get(), list.get() + count);
}

}  // namespace PendrelKit::detail
