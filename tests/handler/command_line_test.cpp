#include "handler/detail/CommandLine.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace CTolvane::detail {
namespace {

using Arguments = std::vector<std::wstring>;

TEST(CommandLine, QuotesPathWithBlankTabOrPlus) {
  EXPECT_EQ(QuoteCommandPath(L"C:\\Program Files\\h.exe"), L"\"C:\\Program Files\\h.exe\"");
  EXPECT_EQ(QuoteCommandPath(L"C:\\h\\c++.exe"), L"\"C:\\h\\c++.exe\"");
  EXPECT_EQ(QuoteCommandPath(L"C:\\h\\a\tb.exe"), L"\"C:\\h\\a\tb.exe\"");
  EXPECT_EQ(QuoteCommandPath(L"C:\\h\\handler.exe"), L"C:\\h\\handler.exe");
  EXPECT_EQ(QuoteCommandPath(L"/opt/h/handler"), L"/opt/h/handler");
}

TEST(CommandLine, KeepsQuotesAlreadyInPath) {
  EXPECT_EQ(QuoteCommandPath(L"\"C:\\a b\\h.exe\""), L"\"\"C:\\a b\\h.exe\"\"");
  EXPECT_EQ(QuoteCommandPath(L"C:\\a\"b.exe"), L"C:\\a\"b.exe");
}

TEST(CommandLine, BuildsTheHandlersCommandLine) {
  EXPECT_EQ(BuildCommandLine(L"C:\\h\\handler.exe", L"1A2F7C3", 3, L"-x"),
            L"C:\\h\\handler.exe _MN_=1A2F7C3 _DM_=3 _EX_=2 -x");
}

TEST(CommandLine, EmptyExtraArgumentsLeaveNoTrailingBlank) {
  EXPECT_EQ(BuildCommandLine(L"C:\\Program Files\\h.exe", L"AB", -1, L""),
            L"\"C:\\Program Files\\h.exe\" _MN_=AB _DM_=-1 _EX_=2");
}

TEST(CommandLine, ExtraArgumentsGoOutAsTheyStand) {
  EXPECT_EQ(BuildCommandLine(L"h", L"1", 0, L"  a \"b c\"  "),
            L"h _MN_=1 _DM_=0 _EX_=2   a \"b c\"  ");
}

TEST(ArgumentVector, HoldsPathFixedArgumentsAndSplitExtras) {
  EXPECT_EQ(BuildArgumentVector(L"/opt/my handler", L"7F", 2, L"-x \"two words\"\tlast"),
            (Arguments{L"/opt/my handler", L"_MN_=7F", L"_DM_=2", L"_EX_=2", L"-x", L"two words",
                       L"last"}));
  EXPECT_EQ(BuildArgumentVector(L"h", L"7F", 0, L""),
            (Arguments{L"h", L"_MN_=7F", L"_DM_=0", L"_EX_=2"}));
}

struct SplitRow {
  const wchar_t* text;
  Arguments arguments;
};

TEST(ArgumentVector, SplitsAtBlanksAndTabsWithQuotesGrouping) {
  const SplitRow rows[] = {
      {L"", {}},
      {L"   \t ", {}},
      {L"a", {L"a"}},
      {L" a  b\tc ", {L"a", L"b", L"c"}},
      {L"\"a b\" c", {L"a b", L"c"}},
      {L"x\"a b\"y", {L"xa by"}},
      {L"\"\"", {L""}},
      {L"a \"\" b", {L"a", L"", L"b"}},
      {L"\"unterminated quote", {L"unterminated quote"}},
      {L"\u00e9t\u00e9 \u20ac", {L"\u00e9t\u00e9", L"\u20ac"}},
  };
  for (const SplitRow& row : rows) EXPECT_EQ(SplitArguments(row.text), row.arguments) << row.text;
}

TEST(PipeName, IsTwoHexNumbersWithoutLeadingZeros) {
  const std::wregex pattern(L"[1-9A-F][0-9A-F]{0,3}[0-9A-F]{1,4}|0[0-9A-F]{0,4}");
  std::set<std::wstring> seen;
  for (int i = 0; i < 300; ++i) {
    const std::wstring name = MakePipeName();
    EXPECT_GE(name.size(), 2u);
    EXPECT_LE(name.size(), 8u);
    EXPECT_TRUE(std::regex_match(name, pattern)) << name.size();
    seen.insert(name);
  }
  EXPECT_GT(seen.size(), 290u);
}

TEST(PipeName, LeavesTheHostsRandSequenceAlone) {
  std::srand(99);
  const int expected = std::rand();
  std::srand(99);
  MakePipeName();
  EXPECT_EQ(std::rand(), expected);
}

}  // namespace
}  // namespace CTolvane::detail
