// CKeyValueMap, the ordered map from wide key to wide value of the records
// (CRequest::CommandParams, CRequest::RequestParams, CResponse::Parameters): keys unique and
// case-sensitive, walked in the order of their UTF-16 code units.
//
// The order belongs to the map's type, so that every walk follows it: the JSON forms, the
// common form, the URL and parameter strings, and a host's or handler's own loops. Where
// wchar_t is 16 bits (Windows) the units are the characters, and CKeyValueMap is exactly
// std::map<std::wstring, std::wstring>. Where it is 32 bits (Linux), plain comparison would
// put a character above U+FFFF after U+E000..U+FFFF, while its UTF-16 form (a high surrogate,
// 0xD800..0xDBFF) sorts before them; CUtf16Less compares the UTF-16 forms instead, so both
// systems write the same text. Code that names the type should write CKeyValueMap; on Linux
// it is not std::map<std::wstring, std::wstring>.
//
// Plain types and pure functions; any thread.
#pragma once

#include <algorithm>  // std::mismatch
#include <cstdint>
#include <functional>  // std::less
#include <map>
#include <string>
#include <type_traits>  // std::conditional_t, std::make_unsigned_t
#include <utility>      // std::exchange

namespace Pendrel {

// Orders wide strings by their UTF-16 code units, the way Windows compares them: a
// character above U+FFFF counts as its two surrogate halves. Strings whose UTF-16 forms are
// equal but which differ as wide strings (a 32-bit character beyond U+10FFFF, which has no
// UTF-16 form, or halves held one per wchar_t) are ordered by their plain wide characters,
// so only equal strings are equivalent.
struct CUtf16Less {
  bool operator()(const std::wstring& left, const std::wstring& right) const noexcept {
    // An equal prefix of whole characters has an equal UTF-16 form.
    const auto [leftAt, rightAt] =
        std::mismatch(left.begin(), left.end(), right.begin(), right.end());
    Units leftUnits(leftAt, left.end());
    Units rightUnits(rightAt, right.end());
    for (;;) {
      const std::int32_t a = leftUnits.Next();
      const std::int32_t b = rightUnits.Next();
      if (a != b) return a < b;
      if (a < 0) return rightAt != right.end() && (leftAt == left.end() || *leftAt < *rightAt);
    }
  }

 private:
  // The UTF-16 units of a wide text, one at a time; -1 at the end.
  class Units {
   public:
    Units(std::wstring::const_iterator next, std::wstring::const_iterator end)
        : m_next(next), m_end(end) {}

    std::int32_t Next() {
      if (m_low != 0) return std::exchange(m_low, 0);
      while (m_next != m_end) {
        const auto c =
            static_cast<std::uint32_t>(static_cast<std::make_unsigned_t<wchar_t>>(*m_next++));
        if (c <= 0xFFFF) return static_cast<std::int32_t>(c);
        if (c <= 0x10FFFF) {
          m_low = static_cast<std::int32_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
          return static_cast<std::int32_t>(0xD800 + ((c - 0x10000) >> 10));
        }
        // Beyond Unicode: no UTF-16 form, and the conversions drop it.
      }
      return -1;
    }

   private:
    std::wstring::const_iterator m_next;
    std::wstring::const_iterator m_end;
    std::int32_t m_low = 0;
  };
};

// The key order of CKeyValueMap: std::less where wchar_t is a UTF-16 unit, CUtf16Less where
// it is wider.
using CKeyOrder = std::conditional_t<sizeof(wchar_t) == 2, std::less<std::wstring>, CUtf16Less>;

using CKeyValueMap = std::map<std::wstring, std::wstring, CKeyOrder>;

}  // namespace Pendrel
