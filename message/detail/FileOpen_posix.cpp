#include <cstdio>

#include "message/detail/FileOpen.h"

namespace Pendrel::detail {
namespace {

// File names on Linux are UTF-8 bytes. Unlike the wire conversions, a character above
// 0xFFFF is written as its proper four-byte sequence so that the name on disk is found.
std::string ToFileSystemName(const std::wstring& path) {
  std::string name;
  name.reserve(path.size() * 4);
  for (wchar_t wc : path) {
    const auto c = static_cast<char32_t>(wc);
    if (c < 0x80) {
      name += static_cast<char>(c);
    } else if (c < 0x800) {
      name += static_cast<char>(0xC0 | (c >> 6));
      name += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      name += static_cast<char>(0xE0 | (c >> 12));
      name += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      name += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x110000) {
      name += static_cast<char>(0xF0 | (c >> 18));
      name += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      name += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      name += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return name;
}

}  // namespace

FilePtr OpenForBinaryRead(const std::wstring& path) {
  // "e": O_CLOEXEC, so a handler started meanwhile does not inherit the descriptor.
  return FilePtr(std::fopen(ToFileSystemName(path).c_str(), "rbe"));
}

bool IsPathSeparator(wchar_t c) { return c == L'/' || c == L'\\'; }

}  // namespace Pendrel::detail
