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
      result[count++] = static_cast<wchar_t>(b);
      i += 1;
    } else if ((b & 0xE0) == 0xC0 && i + 1 < n) {
      result[count++] = static_cast<wchar_t>(((b & 0x1F) << 6) | (in[i + 1] & 0x3F));
      i += 2;
    } else if ((b & 0xF0) == 0xE0 && i + 2 < n) {
      result[count++] =
          static_cast<wchar_t>(((b & 0x0F) << 12) | ((in[i + 1] & 0x3F) << 6) | (in[i + 2] & 0x3F));
      i += 3;
    } else {
      i += 1;  // stray continuation, four-byte lead or cut-off sequence
    }
  }
  result.resize(count);
  return result;
}

std::string FormatString(const char* format, ...) {
  char small[256];
  va_list args;
  va_start(args, format);
  va_list retry;
  va_copy(retry, args);
  const int length = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  std::string result;
  if (length > 0 && static_cast<std::size_t>(length) < sizeof small) {
    result.assign(small, static_cast<std::size_t>(length));
  } else if (length > 0) {
    result.resize(static_cast<std::size_t>(length));
    std::vsnprintf(result.data(), result.size() + 1, format, retry);
  }
  va_end(retry);
  return result;
}

std::wstring FormatWString(const wchar_t* format, ...) {
  // C libraries disagree on what vswprintf returns when the text does not fit: glibc says -1,
  // MinGW's C99 printf says the full length. The buffer grows until the text fits; past the
  // limit the text is cut rather than grown without end.
  constexpr std::size_t kLimit = std::size_t{1} << 24;
  std::vector<wchar_t> buffer(256);
  for (;;) {
    va_list args;
    va_start(args, format);
    const int length = std::vswprintf(buffer.data(), buffer.size(), format, args);
    va_end(args);
    if (length >= 0 && static_cast<std::size_t>(length) < buffer.size()) {
      return std::wstring(buffer.data(), static_cast<std::size_t>(length));
    }
    if (buffer.size() >= kLimit) {
      buffer.back() = L'\0';
      return std::wstring(buffer.data());
    }
    const std::size_t wanted = length >= 0 ? static_cast<std::size_t>(length) + 1 : 0;
    buffer.assign(std::min(kLimit, std::max(wanted, buffer.size() * 4)), L'\0');
  }
}

std::wstring ToUpperW(std::wstring text) {
  for (wchar_t& c : text) c = static_cast<wchar_t>(std::towupper(static_cast<std::wint_t>(c)));
  return text;
}

}  // namespace Pendrel
