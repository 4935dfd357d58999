// The UTF-8 conversions the programs share: lenient for people's text, strict for what
// arrives over HTTP, and writing lone surrogates either replaced or as the library does.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tools/text/Utf8Text.h"

namespace {

using PendrelTools::DecodeUtf8;
using PendrelTools::ELoneSurrogate;
using PendrelTools::Utf8FromWide;
using PendrelTools::WideFromUtf8;

// Characters above U+FFFF as the platform's wchar_t holds them.
const std::wstring kGrin = L"\U0001F600";
const std::wstring kLast = L"\U0010FFFF";

TEST(Utf8Text, DecodesValidTextStrictly) {
  const std::pair<const char*, std::wstring> cases[] = {
      {"", L""},
      {"abc", L"abc"},
      {"\xC3\xBC", L"\u00FC"},
      {"\xE2\x82\xAC", L"\u20AC"},
      {"\xF0\x9F\x98\x80", kGrin},
      {"\xF4\x8F\xBF\xBF", kLast},
      {"\xEF\xBF\xBF", L"\xFFFF"},
      // A pair written as two three-byte sequences, as the library writes it.
      {"\xED\xA0\xBD\xED\xB8\x80", kGrin},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    std::wstring out;
    ASSERT_TRUE(DecodeUtf8(text, out));
    EXPECT_EQ(out, expected);
  }
}

TEST(Utf8Text, StrictDecodingRefusesWhatIsNotUtf8) {
  for (const char* text :
       {"\x80", "\xC3", "\xC3\x28", "\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF", "\xF0\x80\x80\xAF",
        "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "\xED\xA0\x80", "\xED\xB0\x80",
        "\xED\xA0\xBD"
        "a",
        "\xED\xA0\xBD\xED\xA0\xBD", "a\xE2\x82"}) {
    SCOPED_TRACE(text);
    std::wstring out;
    EXPECT_FALSE(DecodeUtf8(text, out));
  }
}

TEST(Utf8Text, LenientDecodingReplacesEachBadSequence) {
  const std::pair<const char*, const wchar_t*> cases[] = {
      {"\xFF"
       "a",
       L"\xFFFD"
       L"a"},
      {"\xC3", L"\xFFFD"},
      {"\xC3\x28", L"\xFFFD("},
      {"\xC0\xAF", L"\xFFFD\xFFFD"},                  // an overlong form: each byte
      {"\xED\xA0\x80", L"\xFFFD"},                    // a surrogate half is no character
      {"\xED\xA0\xBD\xED\xB8\x80", L"\xFFFD\xFFFD"},  // nor are two, for people's text
      {"a\xE2\x82", L"a\xFFFD\xFFFD"},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(WideFromUtf8(text), expected);
  }
}

TEST(Utf8Text, EncodesAndDecodesBack) {
  const std::wstring text = L"a \u00FC \u20AC " + kGrin + L" " + kLast;
  const std::string utf8 = "a \xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF";
  for (const ELoneSurrogate mode : {ELoneSurrogate::Replace, ELoneSurrogate::Keep}) {
    EXPECT_EQ(Utf8FromWide(text, mode), utf8);
  }
  std::wstring back;
  ASSERT_TRUE(DecodeUtf8(utf8, back));
  EXPECT_EQ(back, text);
  EXPECT_EQ(WideFromUtf8(utf8), text);
}

TEST(Utf8Text, LoneSurrogatesAreReplacedOrKeptAsTheLibraryWritesThem) {
  const std::wstring lone(1, static_cast<wchar_t>(0xD83D));
  EXPECT_EQ(Utf8FromWide(L"a" + lone + L"b"),
            "a\xEF\xBF\xBD"
            "b");
  EXPECT_EQ(Utf8FromWide(L"a" + lone + L"b", ELoneSurrogate::Keep),
            "a\xED\xA0\xBD"
            "b");
}

TEST(Utf8Text, ValuesBeyondUnicodeAreReplacedOrLeftOut) {
  if (sizeof(wchar_t) == 2) GTEST_SKIP() << "a 16-bit wchar_t holds no value beyond Unicode";
  const std::wstring beyond(1, static_cast<wchar_t>(0x110000));
  EXPECT_EQ(Utf8FromWide(L"a" + beyond), "a\xEF\xBF\xBD");
  EXPECT_EQ(Utf8FromWide(L"a" + beyond, ELoneSurrogate::Keep), "a");
}

}  // namespace
