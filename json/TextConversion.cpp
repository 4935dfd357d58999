#include "json/TextConversion.h"

#include <algorithm>  // std::min, std::max
#include <cstdarg>    // va_list
#include <cstdio>     // vsnprintf
#include <cwchar>     // vswprintf
#include <cwctype>    // towupper
#include <vector>

namespace Pendrel {
namespace {

constexpr char32_t kDroppedUnit = 0xFFFF;

bool IsHighSurrogate(char32_t u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLowSurrogate(char32_t u) { return u >= 0xDC00 && u <= 0xDFFF; }

// Writes one 16-bit unit as one to three bytes; returns the new end.
char* PutUnit(char32_t u, char* out) {
  if (u < 0x80) {
    *out++ = static_cast<char>(u);
  } else if (u < 0x800) {
    *out++ = static_cast<char>(0xC0 | ((u >> 6) & 0x1F));
    *out++ = static_cast<char>(0x80 | (u & 0x3F));
  } else if (u < kDroppedUnit) {
    *out++ = static_cast<char>(0xE0 | (u >> 12));
    *out++ = static_cast<char>(0x80 | ((u >> 6) & 0x3F));
    *out++ = static_cast<char>(0x80 | (u & 0x3F));
  }
  return out;
}

// Writes one wide character. A 16-bit wchar_t is always a single unit; a 32-bit one above
// 0xFFFF is written as the two surrogate halves that Windows would hold for it.
char* PutWideChar(wchar_t c, char* out) {
  const auto value = static_cast<char32_t>(c);
  if constexpr (sizeof(wchar_t) > 2) {
    if (value > 0x10FFFF) return out;
    if (value > 0xFFFF) {
      const char32_t offset = value - 0x10000;
      out = PutUnit(0xD800 + (offset >> 10), out);
      return PutUnit(0xDC00 + (offset & 0x3FF), out);
    }
  }
  return PutUnit(value, out);
}

// Appends the decoded UTF-16 `unit` to the `count` units of `out`. Where wchar_t is 32 bits,
// a low half right after a high half is joined with it: the string then holds the character,
// as Windows holds the pair. Lone halves stay.
void PutDecodedUnit(char32_t unit, wchar_t* out, std::size_t& count) {
  if constexpr (sizeof(wchar_t) > 2) {
    if (IsLowSurrogate(unit) && count > 0) {
      const auto high = static_cast<char32_t>(out[count - 1]);
      if (IsHighSurrogate(high)) {
        out[count - 1] = static_cast<wchar_t>(0x10000 + ((high - 0xD800) << 10) + (unit - 0xDC00));
        return;
      }
    }
  }
  out[count++] = static_cast<wchar_t>(unit);
}

// Worst case of PutWideChar: three bytes per unit, two units per 32-bit character.
constexpr std::size_t kMaxBytesPerChar = sizeof(wchar_t) > 2 ? 6 : 3;

}  // namespace

std::string Utf16ToUtf8(std::wstring_view text) {
  std::string result;
  if (text.empty()) return result;
  result.resize(text.size() * kMaxBytesPerChar);
  char* const begin = result.data();
  char* out = begin;
  for (wchar_t c : text) out = PutWideChar(c, out);
  result.resize(static_cast<std::size_t>(out - begin));
  return result;
}

std::string Utf16ToUtf8Terminated(std::wstring_view text) {
  // A zero unit is the only way to write a zero byte.
  return Utf16ToUtf8(text.substr(0, text.find(L'\0')));
}

std::wstring Utf8ToUtf16(std::string_view text) {
  std::wstring result;
  if (text.empty()) return result;
  result.resize(text.size());
  const auto* in = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t n = text.size();
  std::size_t count = 0;
  std::size_t i = 0;
  while (i < n) {
    const unsigned b = in[i];
    if (b < 0x80) {
      PutDecodedUnit(b, result.data(), count);
      i += 1;
    } else if ((b & 0xE0) == 0xC0 && i + 1 < n) {
      PutDecodedUnit(((b & 0x1F) << 6) | (in[i + 1] & 0x3F), result.data(), count);
      i += 2;
    } else if ((b & 0xF0) == 0xE0 && i + 2 < n) {
      PutDecodedUnit(((b & 0x0F) << 12) | ((in[i + 1] & 0x3F) << 6) | (in[i + 2] & 0x3F),
                     result.data(), count);
      i += 3;
    } else {
      i += 1;  // stray continuation, four-byte lead or cut-off sequence
    }
  }
  result.resize(count);
  return result;
}

std::wstring AsDecodedText(std::wstring_view text) {
  std::wstring result(text.size(), L'\0');
  std::size_t count = 0;
  for (wchar_t c : text) {
    const auto value = static_cast<char32_t>(c);
    if (value <= 0x10FFFF) PutDecodedUnit(value, result.data(), count);
  }
  result.resize(count);
  return result;
}

namespace {

// vsnprintf / vswprintf, picked by the character type.
int FormatInto(char* buffer, std::size_t size, const char* format, va_list args) {
  return std::vsnprintf(buffer, size, format, args);
}

int FormatInto(wchar_t* buffer, std::size_t size, const wchar_t* format, va_list args) {
  return std::vswprintf(buffer, size, format, args);
}

// printf-style formatting; the result is the text up to the first zero, as a C caller would
// read the buffer. C libraries disagree on what they return when the text does not fit:
// vsnprintf and MinGW's vswprintf say the full length, glibc's vswprintf says -1, as on a
// format error (a "%" at the end, a character the locale cannot convert). The buffer is
// zeroed before each try, so after an error it holds what was written before it; -1 with
// a full buffer may be either, so the buffer grows until the text fits, and past the limit
// the text is cut rather than grown without end.
template <typename Char>
std::basic_string<Char> FormatText(const Char* format, va_list args) {
  constexpr std::size_t kLimit = std::size_t{1} << 24;
  std::vector<Char> buffer(256);
  for (;;) {
    std::fill(buffer.begin(), buffer.end(), Char{});
    va_list attempt;
    va_copy(attempt, args);
    const int length = FormatInto(buffer.data(), buffer.size(), format, attempt);
    va_end(attempt);
    // A formatter that ran out of room may have filled the buffer: its last element ends
    // the text.
    buffer.back() = Char{};
    const std::size_t text = std::char_traits<Char>::length(buffer.data());
    const bool fits = length >= 0 && static_cast<std::size_t>(length) < buffer.size();
    const bool failedShort = length < 0 && text + 1 < buffer.size();
    if (fits || failedShort || buffer.size() >= kLimit) {
      return std::basic_string<Char>(buffer.data(), text);
    }
    const std::size_t wanted = length >= 0 ? static_cast<std::size_t>(length) + 1 : 0;
    buffer.resize(std::min(kLimit, std::max(wanted, buffer.size() * 4)));
  }
}

}  // namespace

std::string FormatString(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string result = FormatText(format, args);
  va_end(args);
  return result;
}

std::wstring FormatWString(const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  std::wstring result = FormatText(format, args);
  va_end(args);
  return result;
}

std::wstring ToUpperW(std::wstring text) {
  for (wchar_t& c : text) c = static_cast<wchar_t>(std::towupper(static_cast<std::wint_t>(c)));
  return text;
}

}  // namespace Pendrel
