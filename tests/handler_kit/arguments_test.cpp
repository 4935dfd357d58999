#include "handler_kit/HandlerArguments.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "json/TextConversion.h"

namespace PendrelKit {
namespace {

using Arguments = std::vector<std::wstring>;

struct ParseRow {
  Arguments arguments;  // the program's path first
  EArgumentError error;
  // Expected on success.
  std::wstring pipeName;
  int mode;
  int exValue;
  Arguments extra;
};

TEST(HandlerArguments, ReadsWhatTheLibraryPutsOnTheCommandLine) {
  const ParseRow rows[] = {
      // As the library starts a handler.
      {{L"h.exe", L"_MN_=1A2F7C3", L"_DM_=3", L"_EX_=2"},
       EArgumentError::None,
       L"1A2F7C3",
       3,
       2,
       {}},
      {{L"h", L"_MN_=AB", L"_DM_=0", L"_EX_=2", L"-x", L"two words"},
       EArgumentError::None,
       L"AB",
       0,
       2,
       {L"-x", L"two words"}},
      {{L"h", L"_MN_=AB", L"_DM_=-1", L"_EX_=2"}, EArgumentError::None, L"AB", -1, 2, {}},
      {{L"h", L"_MN_=AB", L"_DM_=2147483647", L"_EX_=-2147483648"},
       EArgumentError::None,
       L"AB",
       2147483647,
       -2147483647 - 1,
       {}},
      // Anywhere on the line; only the first of each counts, later ones are extras.
      {{L"h", L"--a", L"_EX_=7", L"_MN_=P", L"_MN_=Q", L"_DM_=1", L"_DM_=x"},
       EArgumentError::None,
       L"P",
       1,
       7,
       {L"--a", L"_MN_=Q", L"_DM_=x"}},
      // _DM_ and _EX_ may be absent.
      {{L"h", L"_MN_=P"}, EArgumentError::None, L"P", 0, 0, {}},
      // Prefixes are exact: case and the "=" matter.
      {{L"h", L"_MN_=P", L"_mn_=Q", L"_DM_", L"_DM=1"},
       EArgumentError::None,
       L"P",
       0,
       0,
       {L"_mn_=Q", L"_DM_", L"_DM=1"}},
      // The path is never an argument, whatever it looks like.
      {{L"_MN_=X", L"_MN_=P"}, EArgumentError::None, L"P", 0, 0, {}},
      {{}, EArgumentError::MissingPipeName, L"", 0, 0, {}},
      {{L"h"}, EArgumentError::MissingPipeName, L"", 0, 0, {}},
      {{L"h", L"_DM_=1", L"_EX_=2"}, EArgumentError::MissingPipeName, L"", 0, 0, {}},
      {{L"h", L"_MN_=", L"_MN_=P"}, EArgumentError::MissingPipeName, L"", 0, 0, {}},
      {{L"h", L"_MN_=P", L"_DM_="}, EArgumentError::BadMode, L"", 0, 0, {}},
      {{L"h", L"_MN_=P", L"_DM_=1x"}, EArgumentError::BadMode, L"", 0, 0, {}},
      {{L"h", L"_MN_=P", L"_DM_=+1"}, EArgumentError::BadMode, L"", 0, 0, {}},
      {{L"h", L"_MN_=P", L"_DM_= 1"}, EArgumentError::BadMode, L"", 0, 0, {}},
      {{L"h", L"_MN_=P", L"_DM_=-"}, EArgumentError::BadMode, L"", 0, 0, {}},
      {{L"h", L"_MN_=P", L"_DM_=2147483648"}, EArgumentError::BadMode, L"", 0, 0, {}},
      {{L"h", L"_MN_=P", L"_DM_=-2147483649"}, EArgumentError::BadMode, L"", 0, 0, {}},
      {{L"h", L"_MN_=P", L"_EX_=two"}, EArgumentError::BadExValue, L"", 0, 0, {}},
      // The first error found wins.
      {{L"h", L"_EX_=x", L"_DM_=x"}, EArgumentError::BadExValue, L"", 0, 0, {}},
  };
  for (const ParseRow& row : rows) {
    std::wstring line;
    for (const std::wstring& argument : row.arguments) line += L"[" + argument + L"]";
    SCOPED_TRACE(Pendrel::Utf16ToUtf8(line));
    CHandlerArguments parsed;
    parsed.PipeName = L"untouched";
    ASSERT_EQ(ParseArguments(row.arguments, parsed), row.error);
    if (row.error != EArgumentError::None) {
      EXPECT_EQ(parsed.PipeName, L"untouched");
      continue;
    }
    EXPECT_EQ(parsed.PipeName, row.pipeName);
    EXPECT_EQ(parsed.Mode, row.mode);
    EXPECT_EQ(parsed.ExValue, row.exValue);
    EXPECT_EQ(parsed.ExtraArguments, row.extra);
  }
}

TEST(HandlerArguments, ReadsMainsNarrowAndWideArguments) {
  char path[] = "handler";
  char name[] = "_MN_=7F";
  char mode[] = "_DM_=5";
  char ex[] = "_EX_=2";
  char extra[] = "--record";
  char* narrow[] = {path, name, mode, ex, extra, nullptr};
  CHandlerArguments parsed;
  ASSERT_EQ(ParseArguments(5, narrow, parsed), EArgumentError::None);
  EXPECT_EQ(parsed.PipeName, L"7F");
  EXPECT_EQ(parsed.Mode, 5);
  EXPECT_EQ(parsed.ExValue, 2);
  EXPECT_EQ(parsed.ExtraArguments, Arguments{L"--record"});

  wchar_t widePath[] = L"handler";
  wchar_t wideName[] = L"_MN_=80";
  wchar_t wideExtra[] = L"\u00e9t\u00e9 \u4e2d";
  wchar_t* wide[] = {widePath, wideName, wideExtra, nullptr};
  ASSERT_EQ(ParseArguments(3, wide, parsed), EArgumentError::None);
  EXPECT_EQ(parsed.PipeName, L"80");
  EXPECT_EQ(parsed.Mode, 0);
  EXPECT_EQ(parsed.ExtraArguments, Arguments{L"\u00e9t\u00e9 \u4e2d"});

  char* onlyPath[] = {path, nullptr};
  EXPECT_EQ(ParseArguments(1, onlyPath, parsed), EArgumentError::MissingPipeName);
  EXPECT_EQ(ParseArguments(0, static_cast<char**>(nullptr), parsed),
            EArgumentError::MissingPipeName);
}

#ifndef _WIN32
TEST(HandlerArguments, NarrowArgumentsAreUtf8OnLinux) {
  char path[] = "handler";
  char name[] = "_MN_=7F";
  char extra[] = "\xC3\xA9t\xC3\xA9 \xE4\xB8\xAD";
  char* narrow[] = {path, name, extra, nullptr};
  CHandlerArguments parsed;
  ASSERT_EQ(ParseArguments(3, narrow, parsed), EArgumentError::None);
  EXPECT_EQ(parsed.ExtraArguments, Arguments{L"\u00e9t\u00e9 \u4e2d"});
}
#endif

TEST(HandlerArguments, ProcessArgumentsStartWithThisProgram) {
  const Arguments arguments = ProcessArguments();
  ASSERT_FALSE(arguments.empty());
  EXPECT_NE(arguments.front().find(L"pendrel_handler_kit_test"), std::wstring::npos);
}

TEST(HandlerArguments, EveryErrorHasItsText) {
  EXPECT_STREQ(ArgumentErrorText(EArgumentError::None), "");
  for (EArgumentError error :
       {EArgumentError::MissingPipeName, EArgumentError::BadMode, EArgumentError::BadExValue}) {
    EXPECT_STRNE(ArgumentErrorText(error), "");
  }
  EXPECT_NE(std::string(ArgumentErrorText(EArgumentError::BadMode)).find("_DM_"),
            std::string::npos);
  EXPECT_NE(std::string(ArgumentErrorText(EArgumentError::BadExValue)).find("_EX_"),
            std::string::npos);
  EXPECT_NE(std::string(ArgumentErrorText(EArgumentError::MissingPipeName)).find("_MN_"),
            std::string::npos);
}

}  // namespace
TEST(HandlerArguments, StartedByHandTextSaysWhatIsWrongAndHowToRunIt) {
  EXPECT_EQ(StartedByHandText("./stats", EArgumentError::MissingPipeName),
            "./stats: no pipe name: the _MN_=<name> argument is missing or empty. This is a "
            "pendrel handler: a host starts it and names the pipe to connect to (_MN_=). To run "
            "it by hand: pendrel call ./stats --command WORD");
  // A path with a blank is quoted, so that the command can be pasted.
  const std::string text = StartedByHandText("/opt/my handlers/h", EArgumentError::BadMode);
  EXPECT_EQ(text.rfind("/opt/my handlers/h: the _DM_= argument", 0), 0u) << text;
  EXPECT_NE(text.find("pendrel call \"/opt/my handlers/h\" --command WORD"), std::string::npos)
      << text;
}

}  // namespace PendrelKit
