#include "tools/cli/Text.h"

#include <cstdint>
#include <cwctype>  // std::towupper

namespace PendrelCli {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr bool kWideIsUtf16 = sizeof(wchar_t) == 2;

// The code point of the UTF-8 sequence at `text[at]`, advancing `at` past it; kReplacement
// (one byte consumed) for a byte that starts no valid sequence.
char32_t DecodeOne(std::string_view text, std::size_t& at) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t lead = byte(at);
  if (lead < 0x80) {
    ++at;
    return lead;
  }
  std::size_t length = 0;
  char32_t point = 0;
  char32_t minimum = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, point = lead & 0x1F, minimum = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, point = lead & 0x0F, minimum = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, point = lead & 0x07, minimum = 0x10000;
  }
  if (length == 0 || at + length > text.size()) {
    ++at;
    return kReplacement;
  }
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) {
      ++at;
      return kReplacement;
    }
    point = (point << 6) | (byte(at + i) & 0x3F);
  }
  // Overlong forms, surrogates and values past U+10FFFF are not characters.
  if (point < minimum || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
    ++at;
    return kReplacement;
  }
  at += length;
  return point;
}

void AppendUtf8(char32_t point, std::string& out) {
  if (point < 0x80) {
    out += static_cast<char>(point);
  } else if (point < 0x800) {
    out += static_cast<char>(0xC0 | (point >> 6));
    out += static_cast<char>(0x80 | (point & 0x3F));
  } else if (point < 0x10000) {
    out += static_cast<char>(0xE0 | (point >> 12));
    out += static_cast<char>(0x80 | ((point >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (point & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (point >> 18));
    out += static_cast<char>(0x80 | ((point >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((point >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (point & 0x3F));
  }
}

bool IsHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

}  // namespace

std::wstring WideFromUtf8(std::string_view text) {
  std::wstring wide;
  wide.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const char32_t point = DecodeOne(text, at);
    if (kWideIsUtf16 && point >= 0x10000) {
      wide += static_cast<wchar_t>(0xD800 + ((point - 0x10000) >> 10));
      wide += static_cast<wchar_t>(0xDC00 + ((point - 0x10000) & 0x3FF));
    } else {
      wide += static_cast<wchar_t>(point);
    }
  }
  return wide;
}

std::string Utf8FromWide(std::wstring_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    char32_t point = static_cast<char32_t>(text[at]);
    if (IsHighSurrogate(point) && at + 1 < text.size() &&
        IsLowSurrogate(static_cast<char32_t>(text[at + 1]))) {
      point = 0x10000 + ((point - 0xD800) << 10) + (static_cast<char32_t>(text[++at]) - 0xDC00);
    } else if (IsHighSurrogate(point) || IsLowSurrogate(point) || point > 0x10FFFF) {
      point = kReplacement;
    }
    AppendUtf8(point, out);
  }
  return out;
}

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
