#include "tools/server/forms/detail/Utf8.h"

#include <cstdint>

namespace PendrelServer::detail {
namespace {

constexpr std::uint32_t kHighSurrogateFirst = 0xD800;
constexpr std::uint32_t kLowSurrogateFirst = 0xDC00;
constexpr std::uint32_t kSurrogateEnd = 0xE000;
constexpr std::uint32_t kMaxCharacter = 0x10FFFF;

bool IsHighSurrogate(std::uint32_t c) { return c >= kHighSurrogateFirst && c < kLowSurrogateFirst; }
bool IsLowSurrogate(std::uint32_t c) { return c >= kLowSurrogateFirst && c < kSurrogateEnd; }

std::uint32_t JoinSurrogates(std::uint32_t high, std::uint32_t low) {
  return 0x10000 + ((high - kHighSurrogateFirst) << 10) + (low - kLowSurrogateFirst);
}

// Reads one sequence at `text[i]`, surrogates included; advances `i`. False when invalid.
bool ReadSequence(std::string_view text, std::size_t& i, std::uint32_t& c) {
  const auto lead = static_cast<unsigned char>(text[i]);
  std::size_t length;
  std::uint32_t min;
  if (lead < 0x80) {
    c = lead;
    ++i;
    return true;
  } else if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, c = lead & 0x1F, min = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, c = lead & 0x0F, min = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, c = lead & 0x07, min = 0x10000;
  } else {
    return false;
  }
  if (text.size() - i < length) return false;
  for (std::size_t k = 1; k < length; ++k) {
    const auto next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return false;
    c = (c << 6) | (next & 0x3F);
  }
  if (c < min || c > kMaxCharacter) return false;
  i += length;
  return true;
}

void AppendCharacter(std::wstring& out, std::uint32_t c) {
  if constexpr (sizeof(wchar_t) == 2) {
    if (c >= 0x10000) {
      c -= 0x10000;
      out += static_cast<wchar_t>(kHighSurrogateFirst + (c >> 10));
      out += static_cast<wchar_t>(kLowSurrogateFirst + (c & 0x3FF));
      return;
    }
  }
  out += static_cast<wchar_t>(c);
}

void AppendUtf8(std::string& out, std::uint32_t c) {
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

bool DecodeUtf8(std::string_view text, std::wstring& out) {
  out.clear();
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    std::uint32_t c;
    if (!ReadSequence(text, i, c)) return false;
    if (IsLowSurrogate(c)) return false;
    if (IsHighSurrogate(c)) {
      // Only as the first half of a pair in three-byte sequences.
      std::uint32_t low;
      if (i == text.size() || !ReadSequence(text, i, low) || !IsLowSurrogate(low)) return false;
      c = JoinSurrogates(c, low);
    }
    AppendCharacter(out, c);
  }
  return true;
}

std::string EncodeUtf8(std::wstring_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    auto c = static_cast<std::uint32_t>(text[i]);
    if (IsHighSurrogate(c) && i + 1 < text.size() &&
        IsLowSurrogate(static_cast<std::uint32_t>(text[i + 1]))) {
      c = JoinSurrogates(c, static_cast<std::uint32_t>(text[++i]));
    }
    if (c > kMaxCharacter) continue;  // not a character; nothing to write
    AppendUtf8(out, c);
  }
  return out;
}

}  // namespace PendrelServer::detail
