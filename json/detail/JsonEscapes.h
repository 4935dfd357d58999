// The eight string escapes of the JSON layer, in one table that drives both the writer's
// escaping and the parser's unescaping, so the two cannot drift apart; and the bulk routines
// that apply them.
//
// Only these eight exist: every other byte, control bytes and bytes of 0x80 and above
// included, is written raw, and "\u" escapes are neither written nor decoded. Handlers on
// the other end of the pipe read and write exactly this dialect.
//
// File contents (megabytes, often binary with an escape every few dozen bytes) travel as
// JSON strings, so the routines come three times: a portable byte loop, which is the
// reference; vector kernels for x86 processors with SSSE3 that handle sixteen bytes at a
// time without a branch per escape; and wide ones for x86-64 processors with AVX-512 (BW,
// VBMI, VBMI2) that handle sixty-four. The processor is asked once which to use; all give
// the same bytes.
#pragma once

#include <array>
#include <cstddef>

namespace Pendrel::detail {

struct JsonEscape {
  char raw;     // the byte in the text
  char letter;  // what follows the backslash in the JSON text
};

inline constexpr std::array<JsonEscape, 8> kJsonEscapes{{
    {'\\', '\\'},
    {'/', '/'},
    {'"', '"'},
    {'\n', 'n'},
    {'\t', 't'},
    {'\b', 'b'},
    {'\f', 'f'},
    {'\r', 'r'},
}};

// Byte-indexed views of the table: the letter that escapes a raw byte, and the raw byte that
// a letter after a backslash stands for; 0 where the table has no entry.
struct JsonEscapeLookup {
  std::array<char, 256> letterOf{};
  std::array<char, 256> rawOf{};
};

constexpr JsonEscapeLookup MakeJsonEscapeLookup() {
  JsonEscapeLookup lookup;
  for (const JsonEscape& escape : kJsonEscapes) {
    lookup.letterOf[static_cast<unsigned char>(escape.raw)] = escape.letter;
    lookup.rawOf[static_cast<unsigned char>(escape.letter)] = escape.raw;
  }
  return lookup;
}

inline constexpr JsonEscapeLookup kJsonEscapeLookup = MakeJsonEscapeLookup();

// The copying routines store whole blocks ahead of what they have finished, so their output
// needs this many writable bytes beyond the end of the result.
inline constexpr std::size_t kCopySlack = 32;

// One implementation of the bulk routines.
struct JsonTextKernels {
  // Writes [first, last) escaped to `out`; returns the end of what was written.
  char* (*copyEscaped)(const char* first, const char* last, char* out);
  // Writes [first, last) unescaped to `out` (never longer than the input); returns the end.
  // A backslash pairs with the byte after it when that is one of the letters; otherwise the
  // backslash is kept and the byte after it is read on its own.
  char* (*copyUnescaped)(const char* first, const char* last, char* out);
  // The first quote in [first, last) that no backslash escapes (a backslash escapes the byte
  // after it, whatever it is), or `last`. Sets `hasBackslash` when a backslash stands
  // before that point.
  const char* (*findStringEnd)(const char* first, const char* last, bool& hasBackslash);
  // findStringEnd and copyUnescaped in one pass: writes the text before the string's end
  // unescaped to `out`, sets `stop` to the end (the quote, or `last`) and returns the end of
  // what was written.
  char* (*copyStringUnescaped)(const char* first, const char* last, char* out, const char*& stop);
};

// The byte loops; every processor runs them.
const JsonTextKernels& PortableJsonTextKernels();
// The SSSE3 kernels, or nullptr when this processor (or this build's target) has none.
const JsonTextKernels* VectorJsonTextKernels();
// The AVX-512 kernels, or nullptr when this processor (or this build) has none.
const JsonTextKernels* WideVectorJsonTextKernels();
// The kernels this process uses: the widest available.
const JsonTextKernels& JsonText();

}  // namespace Pendrel::detail
