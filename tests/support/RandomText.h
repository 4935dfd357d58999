// Random texts and bytes for round-trip tests, from a seeded generator so that every run
// sees the same cases.
#pragma once

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>

namespace pendrel_test {

class RandomText {
 public:
  explicit RandomText(std::uint32_t seed) : m_random(seed) {}

  std::uint32_t Next() { return m_random(); }
  std::uint32_t Below(std::uint32_t limit) { return limit == 0 ? 0 : m_random() % limit; }
  bool Chance(std::uint32_t oneIn) { return Below(oneIn) == 0; }
  std::int32_t AnyInt() { return static_cast<std::int32_t>(m_random()); }

  // Wide text of up to `maxLength` UTF-16 units: ASCII (quotes, backslashes, slashes and
  // control characters included), Latin and other two- and three-byte units, and unpaired
  // surrogate halves. Never the zero unit (the JSON tree cuts there) nor 0xFFFF (the UTF-8
  // conversion drops it). With `forName` no quote or backslash appears: member names
  // are written without escaping, so they must not hold these.
  std::wstring Wide(std::size_t maxLength, bool forName = false) {
    std::wstring text;
    const std::size_t length = Below(static_cast<std::uint32_t>(maxLength + 1));
    while (text.size() < length) {
      wchar_t unit = 0;
      switch (Below(6)) {
        case 0:
          unit = static_cast<wchar_t>(1 + Below(0x1F));  // control characters
          break;
        case 1:
          unit = static_cast<wchar_t>("\"\\/ {}[]:,\t\n"[Below(12)]);
          break;
        case 2:
          unit = static_cast<wchar_t>(0x80 + Below(0x800 - 0x80));
          break;
        case 3:
          unit = static_cast<wchar_t>(0x800 + Below(0xFFFF - 0x800));
          break;
        default:
          unit = static_cast<wchar_t>(0x20 + Below(0x5F));
          break;
      }
      if (forName && (unit == L'"' || unit == L'\\')) continue;
      text += unit;
    }
    return text;
  }

  // Up to `maxLength` bytes of 0x00..0xFF, sometimes in long runs of one byte.
  std::string Bytes(std::size_t maxLength) {
    std::string bytes;
    const std::size_t length = Below(static_cast<std::uint32_t>(maxLength + 1));
    bytes.reserve(length);
    while (bytes.size() < length) {
      const char byte = static_cast<char>(Below(256));
      const std::size_t run = Chance(8) ? 1 + Below(5000) : 1;
      bytes.append(std::min(run, length - bytes.size()), byte);
    }
    return bytes;
  }

 private:
  std::mt19937 m_random;
};

}  // namespace pendrel_test
