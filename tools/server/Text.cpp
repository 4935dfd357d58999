#include "tools/server/Text.h"

#include <cstdint>  // std::uint32_t
#include <cstdio>   // std::snprintf

namespace PendrelServer {

std::wstring WideFromUtf8(std::string_view text) {
  std::wstring out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    int extra = 0;
    std::uint32_t code = 0;
    std::uint32_t least = 0;
    if (lead < 0x80) {
      code = lead;
    } else if ((lead & 0xE0) == 0xC0) {
      extra = 1, code = lead & 0x1F, least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      extra = 2, code = lead & 0x0F, least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      extra = 3, code = lead & 0x07, least = 0x10000;
    } else {
      out.push_back(L'\xFFFD');
      ++i;
      continue;
    }
    std::size_t j = i + 1;
    for (int k = 0; k < extra; ++k, ++j) {
      if (j >= text.size() || (static_cast<unsigned char>(text[j]) & 0xC0) != 0x80) break;
      code = (code << 6) | (static_cast<unsigned char>(text[j]) & 0x3F);
    }
    if (j != i + 1 + extra || code < least || code > 0x10FFFF ||
        (code >= 0xD800 && code < 0xE000)) {
      out.push_back(L'\xFFFD');
      i = j > i + 1 ? j : i + 1;
      continue;
    }
    if constexpr (sizeof(wchar_t) == 2) {
      if (code >= 0x10000) {
        code -= 0x10000;
        out.push_back(static_cast<wchar_t>(0xD800 + (code >> 10)));
        out.push_back(static_cast<wchar_t>(0xDC00 + (code & 0x3FF)));
        i = j;
        continue;
      }
    }
    out.push_back(static_cast<wchar_t>(code));
    i = j;
  }
  return out;
}

std::string Utf8FromWide(std::wstring_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto code = static_cast<std::uint32_t>(text[i]);
    if constexpr (sizeof(wchar_t) == 2) {
      if (code >= 0xD800 && code < 0xDC00 && i + 1 < text.size()) {
        const auto low = static_cast<std::uint32_t>(text[i + 1]);
        if (low >= 0xDC00 && low < 0xE000) {
          code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
          ++i;
        }
      }
    }
    if (code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) code = 0xFFFD;
    if (code < 0x80) {
      out.push_back(static_cast<char>(code));
    } else if (code < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (code >> 6)));
      out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else if (code < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (code >> 12)));
      out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (code >> 18)));
      out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    }
  }
  return out;
}

std::string JsonQuoted(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out.push_back('"');
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
          out += escaped;
        } else {
          out.push_back(c);
        }
    }
  }
  out.push_back('"');
  return out;
}

}  // namespace PendrelServer
