// Conversions between the wide strings of the public interfaces and the UTF-8 byte strings
// of JSON texts, HTTP bodies and pipe messages, plus printf-style formatting.
//
// These are deliberately small, unit-by-unit converters, not full Unicode codecs: what they
// drop and where they stop decides what reaches the wire, and handlers already rely on it.
// - Each UTF-16 unit becomes one to three bytes on its own; surrogate halves are not paired
//   and the unit 0xFFFF is dropped.
// - Where wchar_t is 32 bits wide (Linux), a character above 0xFFFF is first split into its
//   two UTF-16 halves, so both platforms write the same bytes; values above 0x10FFFF are
//   dropped. Reading joins the two halves back into one character, so a wide string holds
//   on both platforms what Windows holds as the pair.
// - Invalid UTF-8 is skipped byte by byte; four-byte sequences vanish.
// All functions are pure and may be called from any thread.
#pragma once

#include <string>
#include <string_view>

namespace Pendrel {

// UTF-8 of `text`, keeping every byte written (a zero unit gives a zero byte).
std::string Utf16ToUtf8(std::wstring_view text);

// UTF-8 of `text` cut at the first zero byte: what the JSON tree stores for wide names and
// string values, so a wide string with an embedded zero unit ends there.
std::string Utf16ToUtf8Terminated(std::wstring_view text);

// Wide string of the UTF-8 `text`; one unit per sequence of one to three bytes, zero units
// kept, everything else skipped. Where wchar_t is 32 bits, a low surrogate unit right after a
// high one is joined with it into one character; lone halves stay as they are.
std::wstring Utf8ToUtf16(std::string_view text);

// `text` in the form Utf8ToUtf16 gives back what it stands for, to compare it with decoded
// text: where wchar_t is 32 bits, halves held one per wchar_t are joined into the character
// and values beyond 0x10FFFF dropped; elsewhere `text` itself.
std::wstring AsDecodedText(std::wstring_view text);

// printf-style formatting into a new string: the formatted text up to its first zero
// ("a%cb" with 0 gives "a"); on a format error (a "%" at the end, a character the locale
// cannot convert), what was written before it. Never overruns; thread-safe.
#if defined(__GNUC__)
__attribute__((format(printf, 1, 2)))
#endif
std::string
FormatString(const char* format, ...);

// wprintf-style formatting into a new wide string, with the same rules as FormatString.
// Never overruns; thread-safe. Pass wide string arguments with "%ls", which means the same
// on every platform.
std::wstring FormatWString(const wchar_t* format, ...);

// `text` with every unit mapped through the C library's towupper.
std::wstring ToUpperW(std::wstring text);

}  // namespace Pendrel
