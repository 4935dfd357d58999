#include "handler_kit/HandlerMessages.h"

#include <gtest/gtest.h>

#include <string>

#include "message/CResponse.h"

namespace PendrelKit {
namespace {

struct KindRow {
  const char* message;
  EMessageKind kind;
};

TEST(HandlerMessages, ClassifiesByLeadingBraceOrExactCommandWord) {
  const KindRow rows[] = {
      {"{\"Command\":\"PING\"}", EMessageKind::Request},
      {"{", EMessageKind::Request},
      {"RequestHandlerInfo", EMessageKind::HandlerInfo},
      {"RequestHandlerTaskInfo&TaskCode=T7", EMessageKind::TaskInfo},
      {"RequestHandlerTaskInfo", EMessageKind::TaskInfo},
      {"RequestInputFileSize", EMessageKind::InputFileSize},
      {"RequestLibVersion", EMessageKind::LibVersion},
      {"RequestAllOutputFiles", EMessageKind::AllOutputFiles},
      {"OnCreateSession&SessionKey=17", EMessageKind::CreateSession},
      {"OnCloseSession", EMessageKind::CloseSession},
      {"OnCloseSession&x=1", EMessageKind::CloseSession},
      {"", EMessageKind::Unknown},
      {" {}", EMessageKind::Unknown},
      {"requesthandlerinfo", EMessageKind::Unknown},
      {"RequestHandlerInfo ", EMessageKind::Unknown},
      {"RequestHandlerInfoX", EMessageKind::Unknown},
      {"RequestHandler", EMessageKind::Unknown},
      {"&RequestLibVersion", EMessageKind::Unknown},
      {"Ping", EMessageKind::Unknown},
  };
  for (const KindRow& row : rows) {
    EXPECT_EQ(ClassifyMessage(row.message), row.kind) << '"' << row.message << '"';
  }
}

TEST(HandlerMessages, CommandWordsAreTheOnesClassified) {
  for (EMessageKind kind :
       {EMessageKind::HandlerInfo, EMessageKind::TaskInfo, EMessageKind::InputFileSize,
        EMessageKind::LibVersion, EMessageKind::AllOutputFiles, EMessageKind::CreateSession,
        EMessageKind::CloseSession}) {
    EXPECT_EQ(ClassifyMessage(CommandWord(kind)), kind) << CommandWord(kind);
  }
  EXPECT_STREQ(CommandWord(EMessageKind::LibVersion), "RequestLibVersion");
  EXPECT_STREQ(CommandWord(EMessageKind::Request), "");
  EXPECT_STREQ(CommandWord(EMessageKind::Unknown), "");
}

struct QueryRow {
  const char* message;
  QueryPairs pairs;
};

TEST(HandlerMessages, SplitsTheQueryAtAmpersandsThenAtTheFirstEquals) {
  const QueryRow rows[] = {
      {"RequestLibVersion", {}},
      {"OnCreateSession&", {}},
      {"X&a=1&b=2", {{L"a", L"1"}, {L"b", L"2"}}},
      {"X&&a=1&&", {{L"a", L"1"}}},
      {"X&a=&=v&k", {{L"a", L""}, {L"", L"v"}, {L"k", L""}}},
      {"X&LogFileName=a=b.log", {{L"LogFileName", L"a=b.log"}}},
      {"X&a=1&a=2", {{L"a", L"1"}, {L"a", L"2"}}},
      {"X&a=%41+b", {{L"a", L"%41+b"}}},
      {"X&User=\xD0\x98\xD0\xB2\xD0\xB0\xD0\xBD", {{L"User", L"\u0418\u0432\u0430\u043d"}}},
  };
  for (const QueryRow& row : rows) {
    EXPECT_EQ(ParseQuery(row.message), row.pairs) << row.message;
  }
}

TEST(HandlerMessages, ReadsTheSessionAsTheLibrarySendsIt) {
  const CSessionInfo session = ParseSessionInfo(
      "OnCreateSession&SessionKey=17&User=operator1&HandleTaskID=42&HandlerCode=H1"
      "&HandlerTaskCode=T7&LogFileName=run.log&TaskTimeoutS=600");
  EXPECT_EQ(session.SessionKey, L"17");
  EXPECT_EQ(session.User, L"operator1");
  EXPECT_EQ(session.HandleTaskID, L"42");
  EXPECT_EQ(session.HandlerCode, L"H1");
  EXPECT_EQ(session.HandlerTaskCode, L"T7");
  EXPECT_EQ(session.LogFileName, L"run.log");
  EXPECT_EQ(session.TaskTimeoutS, 600u);
  EXPECT_EQ(session.Pairs, (QueryPairs{{L"SessionKey", L"17"},
                                       {L"User", L"operator1"},
                                       {L"HandleTaskID", L"42"},
                                       {L"HandlerCode", L"H1"},
                                       {L"HandlerTaskCode", L"T7"},
                                       {L"LogFileName", L"run.log"},
                                       {L"TaskTimeoutS", L"600"}}));
}

TEST(HandlerMessages, AnAmpersandInAValueSplitsTheSessionQuery) {
  const CSessionInfo session = ParseSessionInfo(
      "OnCreateSession&SessionKey=1&User=R&D&HandleTaskID=2&HandlerCode=&HandlerTaskCode="
      "&LogFileName=&TaskTimeoutS=0");
  EXPECT_EQ(session.User, L"R");
  EXPECT_EQ(session.HandleTaskID, L"2");
  ASSERT_EQ(session.Pairs.size(), 8u);
  EXPECT_EQ(session.Pairs[2], (std::pair<std::wstring, std::wstring>{L"D", L""}));
}

TEST(HandlerMessages, FirstOfDuplicateSessionKeysWinsAndMissingOnesStayEmpty) {
  const CSessionInfo session =
      ParseSessionInfo("OnCreateSession&User=a&User=b&sessionkey=5&TaskTimeoutS=7");
  EXPECT_EQ(session.User, L"a");
  EXPECT_EQ(session.SessionKey, L"");
  EXPECT_EQ(session.LogFileName, L"");
  EXPECT_EQ(session.TaskTimeoutS, 7u);
  EXPECT_EQ(session.Pairs.size(), 4u);
}

struct TimeoutRow {
  const char* text;
  std::uint32_t seconds;
};

TEST(HandlerMessages, TaskTimeoutIsAWholeUnsigned32BitNumberOrZero) {
  const TimeoutRow rows[] = {
      {"0", 0},   {"600", 600}, {"4294967295", 4294967295u}, {"4294967296", 0}, {"", 0}, {"-1", 0},
      {"12s", 0}, {" 5", 0},    {"000000042", 42},
  };
  for (const TimeoutRow& row : rows) {
    const std::string message = std::string("OnCreateSession&TaskTimeoutS=") + row.text;
    EXPECT_EQ(ParseSessionInfo(message).TaskTimeoutS, row.seconds) << row.text;
  }
}

struct TaskCodeRow {
  const char* message;
  std::wstring code;
};

TEST(HandlerMessages, TaskCodeIsAllTheTextAfterTaskCodeKey) {
  const TaskCodeRow rows[] = {
      {"RequestHandlerTaskInfo&TaskCode=T7", L"T7"},
      {"RequestHandlerTaskInfo&TaskCode=", L""},
      {"RequestHandlerTaskInfo", L""},
      {"RequestHandlerTaskInfo&Code=T7", L""},
      {"RequestHandlerTaskInfo&TaskCode=a&b=c", L"a&b=c"},
      {"RequestHandlerTaskInfo&TaskCode=\xE4\xB8\xAD", L"\u4e2d"},
  };
  for (const TaskCodeRow& row : rows)
    EXPECT_EQ(ParseTaskCode(row.message), row.code) << row.message;
}

TEST(HandlerMessages, QueryAnswersCarryTheKeysTheLibraryReads) {
  EXPECT_EQ(
      HandlerInfoAnswer({L"N", L"D", L"V"}).ToJsonString(),
      "{\"status\":3,\"Parameters\":{\"Description\":\"D\",\"Name\":\"N\",\"Version\":\"V\"}}");
  EXPECT_EQ(TaskInfoAnswer({L"N", L"D"}).ToJsonString(),
            "{\"status\":3,\"Parameters\":{\"Description\":\"D\",\"Name\":\"N\"}}");
  EXPECT_EQ(InputFileSizeAnswer(5000000000ull).ToJsonString(),
            "{\"status\":3,\"Parameters\":{\"InputFileSize\":\"5000000000\"}}");
  EXPECT_EQ(InputFileSizeAnswer(0).ToJsonString(),
            "{\"status\":3,\"Parameters\":{\"InputFileSize\":\"0\"}}");
  EXPECT_EQ(LibVersionAnswer(4).ToJsonString(),
            "{\"status\":3,\"Parameters\":{\"LibVersion\":\"4\"}}");
  EXPECT_EQ(LibVersionAnswer(4294967295u).Parameters.at(kLibVersionKey), L"4294967295");
}

}  // namespace
}  // namespace PendrelKit
