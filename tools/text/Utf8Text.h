// UTF-8 against the wide strings of the records, for the programs around the library (the
// command line, the server and its HTTP forms, their tests).
//
// The library keeps its own converters to itself, so its programs share these. Characters
// above U+FFFF are one wchar_t where wchar_t holds 32 bits (Linux) and a surrogate pair where
// it holds 16 (Windows); the library writes both as the same bytes. Pure functions; any
// thread.
#pragma once

#include <string>
#include <string_view>

namespace PendrelTools {

// Decodes `text` leniently: every byte that starts no valid sequence (a stray or missing
// continuation byte, an overlong form, a surrogate half, a value above U+10FFFF) becomes
// U+FFFD and decoding goes on after it.
std::wstring WideFromUtf8(std::string_view text);

// Decodes `text` into `out` (replaced) strictly: false, `out` unspecified, for anything that
// is not UTF-8. A surrogate pair written as two three-byte sequences (as the library writes
// characters above U+FFFF where wchar_t holds 32 bits) is accepted and joined; a lone
// surrogate half is refused.
bool DecodeUtf8(std::string_view text, std::wstring& out);

// What Utf8FromWide writes for a surrogate half that is not part of a pair.
enum class ELoneSurrogate {
  Replace,  // U+FFFD: text for people and for strict readers
  Keep,     // its own three bytes, as the library writes it: for reading back what it wrote
};

// The UTF-8 of `text`; a surrogate pair held in two wchar_t is joined first. Values above
// U+10FFFF are written as U+FFFD (Replace) or left out (Keep).
std::string Utf8FromWide(std::wstring_view text,
                         ELoneSurrogate loneSurrogate = ELoneSurrogate::Replace);

}  // namespace PendrelTools
