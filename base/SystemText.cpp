#include "base/SystemText.h"

namespace Pendrel::base {
namespace {

bool IsHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

void PutCodePoint(char32_t c, std::string& out) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

}  // namespace

std::string ToSystemText(const std::wstring& text) {
  std::string out;
  out.reserve(text.size() * 3);
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<char32_t>(text[i]);
    if (IsHighSurrogate(c) && i + 1 < text.size() &&
        IsLowSurrogate(static_cast<char32_t>(text[i + 1]))) {
      const auto low = static_cast<char32_t>(text[++i]);
      PutCodePoint(0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00), out);
    } else if (!IsHighSurrogate(c) && !IsLowSurrogate(c) && c < 0x110000) {
      PutCodePoint(c, out);
    }
  }
  return out;
}

}  // namespace Pendrel::base
