// What the fuzz targets share: a check that stops the run with a message libFuzzer keeps
// beside the input that broke it, the input as a string view, and which member names the
// JSON writer can carry unchanged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "json/TextConversion.h"

// A property that must hold for every input. abort() makes libFuzzer save the input as a
// crash, so CI fails and the input can be replayed (./fuzz_<target> crash-<hash>).
#define PENDREL_FUZZ_CHECK(condition)                                                       \
  do {                                                                                      \
    if (!(condition)) {                                                                     \
      std::fprintf(stderr, "%s:%d: property broken: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                         \
    }                                                                                       \
  } while (false)

namespace pendrel_fuzz {

inline std::string_view AsText(const std::uint8_t* data, std::size_t size) {
  return std::string_view(reinterpret_cast<const char*>(data), size);
}

// Whether a wide text comes back as itself from a JSON form: the writer cuts it at a zero
// unit and the UTF-8 conversion drops the unit 0xFFFF, by design.
inline bool TextSurvivesWriting(std::wstring_view text) {
  return Pendrel::Utf8ToUtf16(Pendrel::Utf16ToUtf8Terminated(text)) == text;
}

// Whether a record's key comes back as itself. Names are also written as stored, without
// escapes, so a key holding a quote or a backslash does not either; two keys that do not
// may come back as one.
inline bool KeySurvivesWriting(std::wstring_view key) {
  return key.find_first_of(L"\"\\") == std::wstring_view::npos && TextSurvivesWriting(key);
}

}  // namespace pendrel_fuzz
