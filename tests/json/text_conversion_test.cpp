#include "json/TextConversion.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace Pendrel {
namespace {

std::string Bytes(std::initializer_list<unsigned char> bytes) {
  return std::string(bytes.begin(), bytes.end());
}

TEST(Utf16ToUtf8, WritesTwoBytesBelow0x800) {
  EXPECT_EQ(Utf16ToUtf8(L"\u00E9"), Bytes({0xC3, 0xA9}));
}

TEST(Utf16ToUtf8, WritesThreeBytesBelow0xFFFF) {
  EXPECT_EQ(Utf16ToUtf8(L"\u20AC"), Bytes({0xE2, 0x82, 0xAC}));
}

TEST(Utf16ToUtf8, WritesAsciiAsItself) { EXPECT_EQ(Utf16ToUtf8(L"abc 123"), "abc 123"); }

TEST(Utf16ToUtf8, EmptyGivesEmpty) {
  EXPECT_EQ(Utf16ToUtf8(L""), "");
  EXPECT_EQ(Utf16ToUtf8Terminated(L""), "");
}

TEST(Utf16ToUtf8, DropsUnitFFFF) {
  std::wstring text = L"a";
  text += static_cast<wchar_t>(0xFFFF);
  text += L"b";
  EXPECT_EQ(Utf16ToUtf8(text), "ab");
}

TEST(Utf16ToUtf8, KeepsUnitFFFE) {
  std::wstring text(1, static_cast<wchar_t>(0xFFFE));
  EXPECT_EQ(Utf16ToUtf8(text), Bytes({0xEF, 0xBF, 0xBE}));
}

TEST(Utf16ToUtf8, WritesBoundaryUnits) {
  EXPECT_EQ(Utf16ToUtf8(std::wstring(1, static_cast<wchar_t>(0x7F))), Bytes({0x7F}));
  EXPECT_EQ(Utf16ToUtf8(std::wstring(1, static_cast<wchar_t>(0x80))), Bytes({0xC2, 0x80}));
  EXPECT_EQ(Utf16ToUtf8(std::wstring(1, static_cast<wchar_t>(0x7FF))), Bytes({0xDF, 0xBF}));
  EXPECT_EQ(Utf16ToUtf8(std::wstring(1, static_cast<wchar_t>(0x800))), Bytes({0xE0, 0xA0, 0x80}));
}

TEST(Utf16ToUtf8, WritesSurrogatePairAsTwoThreeByteSequences) {
  // U+1F600 held as its two UTF-16 halves, as Windows holds it.
  std::wstring halves;
  halves += static_cast<wchar_t>(0xD83D);
  halves += static_cast<wchar_t>(0xDE00);
  const std::string expected = Bytes({0xED, 0xA0, 0xBD, 0xED, 0xB8, 0x80});
  EXPECT_EQ(Utf16ToUtf8(halves), expected);
  // A strict UTF-8 reader would reject the six bytes; ours gives back the character (the two
  // halves where wchar_t is 16 bits, the character itself where it is 32).
  EXPECT_EQ(Utf8ToUtf16(expected), L"\U0001F600");
}

TEST(Utf16ToUtf8, WritesCharacterAboveFFFFAsItsHalvesWhereWideCharsAre32Bits) {
  if (sizeof(wchar_t) == 2) GTEST_SKIP() << "a 16-bit wchar_t cannot hold U+1F600 in one unit";
  const std::wstring single(1, static_cast<wchar_t>(0x1F600));
  EXPECT_EQ(Utf16ToUtf8(single), Bytes({0xED, 0xA0, 0xBD, 0xED, 0xB8, 0x80}));
}

TEST(Utf16ToUtf8, DropsValuesBeyondUnicodeWhereWideCharsAre32Bits) {
  if (sizeof(wchar_t) == 2) GTEST_SKIP() << "a 16-bit wchar_t cannot exceed 0xFFFF";
  std::wstring text = L"a";
  text += static_cast<wchar_t>(0x110000);
  text += L"b";
  EXPECT_EQ(Utf16ToUtf8(text), "ab");
}

TEST(Utf16ToUtf8, CountingVariantKeepsTailAfterZeroUnit) {
  const std::wstring text(L"ab\0cd", 5);
  EXPECT_EQ(Utf16ToUtf8(text), std::string("ab\0cd", 5));
}

TEST(Utf16ToUtf8, TerminatingVariantCutsAtZeroUnit) {
  const std::wstring text(L"ab\0cd", 5);
  EXPECT_EQ(Utf16ToUtf8Terminated(text), "ab");
  EXPECT_EQ(Utf16ToUtf8Terminated(L"\u00E9t\u00E9"), Utf16ToUtf8(L"\u00E9t\u00E9"));
}

TEST(Utf8ToUtf16, DecodesOneToThreeByteSequences) {
  EXPECT_EQ(Utf8ToUtf16("A"), L"A");
  EXPECT_EQ(Utf8ToUtf16(Bytes({0xC3, 0xA9})), L"\u00E9");
  EXPECT_EQ(Utf8ToUtf16(Bytes({0xE2, 0x82, 0xAC})), L"\u20AC");
  EXPECT_EQ(Utf8ToUtf16(""), L"");
}

TEST(Utf8ToUtf16, FourByteSequenceVanishes) {
  EXPECT_EQ(Utf8ToUtf16(Bytes({0xF0, 0x9F, 0x98, 0x80})), L"");
  EXPECT_EQ(Utf8ToUtf16(Bytes({'a', 0xF0, 0x9F, 0x98, 0x80, 'b'})), L"ab");
}

TEST(Utf8ToUtf16, LoneLeadByteGivesNothing) { EXPECT_EQ(Utf8ToUtf16(Bytes({0xC3})), L""); }

TEST(Utf8ToUtf16, CutOffSequenceAtEndIsSkipped) {
  EXPECT_EQ(Utf8ToUtf16(Bytes({0x41, 0xC3})), L"A");
  EXPECT_EQ(Utf8ToUtf16(Bytes({0x41, 0xE2, 0x82})), L"A");
}

TEST(Utf8ToUtf16, StrayContinuationByteIsSkipped) {
  EXPECT_EQ(Utf8ToUtf16(Bytes({0x80, 0x41, 0xBF})), L"A");
}

TEST(Utf8ToUtf16, AcceptsOverlongFormsAndKeepsZeroUnits) {
  const std::wstring decoded = Utf8ToUtf16(Bytes({0xC0, 0x80, 0x41, 0x00, 0x42}));
  EXPECT_EQ(decoded, std::wstring(L"\0A\0B", 4));
}

TEST(Utf8ToUtf16, TakesContinuationBytesAsTheyCome) {
  // 0xC3 followed by an ASCII byte: only its low six bits count.
  EXPECT_EQ(Utf8ToUtf16(Bytes({0xC3, 0x41})), std::wstring(1, static_cast<wchar_t>(0xC1)));
}

TEST(Utf8ToUtf16, RoundTripsEveryUnitButFFFF) {
  std::wstring all;
  for (unsigned u = 1; u < 0xFFFF; ++u) {
    all += static_cast<wchar_t>(u);
    // Kept apart: the last high half and the first low half would read back as a pair.
    if (u == 0xDBFF) all += L'x';
  }
  EXPECT_EQ(Utf8ToUtf16(Utf16ToUtf8(all)), all);
}

TEST(Utf8ToUtf16, JoinsSurrogateHalvesIntoTheCharacter) {
  // U+1F600 and U+10FFFF as their halves' three-byte sequences, between ASCII letters.
  const std::string bytes =
      Bytes({'a', 0xED, 0xA0, 0xBD, 0xED, 0xB8, 0x80, 'b', 0xED, 0xAF, 0xBF, 0xED, 0xBF, 0xBF});
  EXPECT_EQ(Utf8ToUtf16(bytes), L"a\U0001F600b\U0010FFFF");
}

TEST(Utf8ToUtf16, LeavesLoneAndReversedHalvesAsTheyAre) {
  const wchar_t high = static_cast<wchar_t>(0xD83D);
  const wchar_t low = static_cast<wchar_t>(0xDE00);
  const std::wstring lone{high, L'A', low};
  EXPECT_EQ(Utf8ToUtf16(Utf16ToUtf8(lone)), lone);
  const std::wstring reversed{low, high};
  EXPECT_EQ(Utf8ToUtf16(Utf16ToUtf8(reversed)), reversed);
}

TEST(Utf8ToUtf16, RoundTripsCharactersAboveFFFF) {
  const std::wstring text = L"\U00010000 \U0001F600 \U0010FFFF\U0001D11E";
  EXPECT_EQ(Utf8ToUtf16(Utf16ToUtf8(text)), text);
  EXPECT_EQ(Utf8ToUtf16(Utf16ToUtf8Terminated(text)), text);
}

TEST(FormatString, FormatsLikePrintf) {
  EXPECT_EQ(FormatString("%s (1) #%u", "text", 7u), "text (1) #7");
  EXPECT_EQ(FormatString("%02X%02X", 0xB0, 0x0A), "B00A");
  EXPECT_EQ(FormatString("%s", ""), "");
}

TEST(FormatString, DoesNotOverrunLongTexts) {
  const std::string longText(250000, 'x');
  const std::string result = FormatString("<%s>", longText.c_str());
  ASSERT_EQ(result.size(), longText.size() + 2);
  EXPECT_EQ(result, "<" + longText + ">");
}

TEST(FormatString, StopsAtTheFirstZero) {
  EXPECT_EQ(FormatString("a%cb", 0), "a");
  EXPECT_EQ(FormatString("%s|%c|%d", "x", 0, 5), "x|");
}

// A conversion cut off by the end of the format, held in a string so that the compiler does
// not reject it.
const std::string kBrokenFormat = "n=%d, then %";
const std::wstring kBrokenWideFormat = L"n=%d, then %";

TEST(FormatString, FormatErrorGivesWhatWasWrittenBeforeIt) {
  EXPECT_EQ(FormatString(kBrokenFormat.c_str(), 7), "n=7, then ");
  // Longer than the first buffer: the text before the error is still kept whole.
  const std::string longText(1000, 'x');
  const std::string longFormat = longText + "%";
  EXPECT_EQ(FormatString(longFormat.c_str(), 0), longText);
}

TEST(FormatWString, StopsAtTheFirstZero) {
  EXPECT_EQ(FormatWString(L"a%cb", 0), L"a");
  EXPECT_EQ(FormatWString(L"%ls|%c|%d", L"x", 0, 5), L"x|");
}

TEST(FormatWString, FormatErrorGivesWhatWasWrittenBeforeIt) {
  EXPECT_EQ(FormatWString(kBrokenWideFormat.c_str(), 7), L"n=7, then ");
  const std::wstring longText(1000, L'y');
  const std::wstring longFormat = longText + L"%";
  EXPECT_EQ(FormatWString(longFormat.c_str(), 0), longText);
}

TEST(FormatWString, FormatsWideArguments) {
  EXPECT_EQ(FormatWString(L"%ls (2) #%u\n", L"\u041e\u0448\u0438\u0431\u043a\u0430", 12u),
            L"\u041e\u0448\u0438\u0431\u043a\u0430 (2) #12\n");
  EXPECT_EQ(FormatWString(L"%ls: %u / %u", L"x", 1u, 2u), L"x: 1 / 2");
}

TEST(FormatWString, DoesNotOverrunLongTexts) {
  const std::wstring longText(250000, L'y');
  const std::wstring result = FormatWString(L"[%ls]", longText.c_str());
  ASSERT_EQ(result.size(), longText.size() + 2);
  EXPECT_EQ(result, L"[" + longText + L"]");
}

TEST(FormatString, IsSafeFromSeveralThreads) {
  // Each thread must get its own text back; a shared buffer would mix them.
  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &mismatches] {
      for (int i = 0; i < 2000; ++i) {
        const std::string expected = std::to_string(t) + ":" + std::to_string(i);
        if (FormatString("%d:%d", t, i) != expected) ++mismatches;
        const std::wstring wide = std::to_wstring(t) + L":" + std::to_wstring(i);
        if (FormatWString(L"%d:%d", t, i) != wide) ++mismatches;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
}

TEST(ToUpperW, UpperCasesAsciiLetters) {
  EXPECT_EQ(ToUpperW(L"lang-En_1"), L"LANG-EN_1");
  EXPECT_EQ(ToUpperW(L""), L"");
}

TEST(ToUpperW, LeavesNonAsciiLettersInTheDefaultLocale) {
  // The C library's mapping in the "C" locale covers ASCII only, on both platforms, so keys
  // fold the same way in the Linux and the Windows build.
  EXPECT_EQ(ToUpperW(L"\u00e9\u03b1\u0436"), L"\u00e9\u03b1\u0436");
}

}  // namespace
}  // namespace Pendrel
