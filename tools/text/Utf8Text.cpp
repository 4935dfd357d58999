#include "tools/text/Utf8Text.h"

#include <cstddef>
#include <cstdint>

namespace PendrelTools {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kHighSurrogateFirst = 0xD800;
constexpr char32_t kLowSurrogateFirst = 0xDC00;
constexpr char32_t kSurrogateEnd = 0xE000;
constexpr char32_t kMaxCharacter = 0x10FFFF;

bool IsHighSurrogate(char32_t c) { return c >= kHighSurrogateFirst && c < kLowSurrogateFirst; }
bool IsLowSurrogate(char32_t c) { return c >= kLowSurrogateFirst && c < kSurrogateEnd; }

char32_t JoinSurrogates(char32_t high, char32_t low) {
  return 0x10000 + ((high - kHighSurrogateFirst) << 10) + (low - kLowSurrogateFirst);
}

// Reads the sequence at `text[at]` into `c` and advances `at` past it. Surrogate halves are
// read as values (the callers decide about them); false, `at` unchanged, when no valid
// sequence starts there.
bool ReadSequence(std::string_view text, std::size_t& at, char32_t& c) {
  const auto lead = static_cast<unsigned char>(text[at]);
  if (lead < 0x80) {
    c = lead;
    ++at;
    return true;
  }
  std::size_t length;
  char32_t minimum;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, c = lead & 0x1F, minimum = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, c = lead & 0x0F, minimum = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, c = lead & 0x07, minimum = 0x10000;
  } else {
    return false;
  }
  if (text.size() - at < length) return false;
  for (std::size_t k = 1; k < length; ++k) {
    const auto next = static_cast<unsigned char>(text[at + k]);
    if ((next & 0xC0) != 0x80) return false;
    c = (c << 6) | (next & 0x3F);
  }
  if (c < minimum || c > kMaxCharacter) return false;
  at += length;
  return true;
}

void AppendWide(std::wstring& out, char32_t c) {
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

void AppendUtf8(std::string& out, char32_t c) {
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

std::wstring WideFromUtf8(std::string_view text) {
  std::wstring out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    char32_t c;
    if (!ReadSequence(text, at, c)) {
      c = kReplacement;
      ++at;
    } else if (IsHighSurrogate(c) || IsLowSurrogate(c)) {
      c = kReplacement;  // a surrogate half is no character; its three bytes are read
    }
    AppendWide(out, c);
  }
  return out;
}

bool DecodeUtf8(std::string_view text, std::wstring& out) {
  out.clear();
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    char32_t c;
    if (!ReadSequence(text, at, c) || IsLowSurrogate(c)) return false;
    if (IsHighSurrogate(c)) {
      // Only as the first half of a pair in three-byte sequences.
      char32_t low;
      if (at == text.size() || !ReadSequence(text, at, low) || !IsLowSurrogate(low)) return false;
      c = JoinSurrogates(c, low);
    }
    AppendWide(out, c);
  }
  return true;
}

std::string Utf8FromWide(std::wstring_view text, ELoneSurrogate loneSurrogate) {
  const bool keep = loneSurrogate == ELoneSurrogate::Keep;
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    auto c = static_cast<char32_t>(text[at]);
    if (IsHighSurrogate(c) && at + 1 < text.size() &&
        IsLowSurrogate(static_cast<char32_t>(text[at + 1]))) {
      c = JoinSurrogates(c, static_cast<char32_t>(text[++at]));
    } else if (c > kMaxCharacter) {
      if (keep) continue;  // not a character; nothing to write
      c = kReplacement;
    } else if (!keep && (IsHighSurrogate(c) || IsLowSurrogate(c))) {
      c = kReplacement;
    }
    AppendUtf8(out, c);
  }
  return out;
}

}  // namespace PendrelTools
