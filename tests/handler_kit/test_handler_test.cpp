// The test handler program itself, started as the library starts a handler, with this test
// as the library's side of the pipe: its answers, its record of what it received, and each
// of its ways of misbehaving.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "json/TextConversion.h"
#include "message/CRequest.h"
#include "message/CResponse.h"
#include "pipe/NamedPipeChannel.h"
#include "tests/handler/test_handler/TestHandler.h"
#include "tests/handler_kit/KitTestSupport.h"
#include "tests/support/TempDir.h"

namespace pendrel_test {
namespace {

using namespace std::chrono_literals;

// The test handler started with `extraArguments`, and the server end it connects to.
class TestHandlerRun : public ServerConversation {
 public:
  explicit TestHandlerRun(const std::wstring& extraArguments, int mode = 0)
      : m_name(UniqueKitPipeName()), m_process(TestHandlerPath(), m_name, mode, extraArguments) {}

  bool Open(std::chrono::milliseconds limit = 10s) {
    m_server.SetOpenTimeLimitMs(static_cast<std::uint32_t>(limit.count()));
    return m_server.Open(m_name);
  }

  // The server end closes first, so that the handler sees the pipe go and ends.
  ~TestHandlerRun() { m_server.Close(); }
  TestHandlerRun(const TestHandlerRun&) = delete;
  TestHandlerRun& operator=(const TestHandlerRun&) = delete;

  // Closes the server end and returns the handler's exit code.
  int Finish() {
    m_server.Close();
    return m_process.Wait(20s);
  }

  HandlerProcess& Process() { return m_process; }

 private:
  std::wstring m_name;
  HandlerProcess m_process;
};

std::wstring Quoted(const std::filesystem::path& path) { return L"\"" + path.wstring() + L"\""; }

// The test handler's answer to a query: status 3 and the one parameter `key` = `value`.
std::string Answer(const std::string& key, const std::string& value) {
  return "{\"status\":3,\"Parameters\":{\"" + key + "\":\"" + value + "\"}}";
}

Pendrel::CRequest PingRequest() {
  Pendrel::CRequest request;
  request.Command = L"PING";
  request.CommandAtribute = L"attr";
  request.CommandParams[L"id"] = L"7";
  request.RequestParams[L"LANG"] = L"\u0440\u0443";
  return request;
}

TEST(TestHandlerProgram, EchoesAnswersQueriesAndRecordsEveryMessageExactly) {
  TempDir folder;
  const std::filesystem::path record = folder.path() / "record.txt";
  TestHandlerRun handler(L"--record " + Quoted(record), 3);
  ASSERT_TRUE(handler.Process().Started());
  ASSERT_TRUE(handler.Open()) << Pendrel::Utf16ToUtf8(handler.Server().ErrorText());

  const std::string session =
      "OnCreateSession&SessionKey=17&User=R&D&HandleTaskID=42&HandlerCode=H1"
      "&HandlerTaskCode=T7&LogFileName=run.log&TaskTimeoutS=600";
  Pendrel::CRequest withFile = PingRequest();
  Pendrel::CMimeFile file;
  file.FileName = L"in.txt";
  file.Name = L"in";
  file.Data = "two\nlines \"quoted\" \\ end";
  withFile.InputData.push_back(file);
  const std::vector<std::string> sent = {PingRequest().ToJsonString(),
                                         "RequestHandlerInfo",
                                         "RequestHandlerTaskInfo&TaskCode=T\xE4\xB8\xAD",
                                         "RequestInputFileSize",
                                         "RequestLibVersion",
                                         session,
                                         withFile.ToJsonString(),
                                         "RequestAllOutputFiles",
                                         "OnCloseSession",
                                         "Nonsense"};

  EXPECT_EQ(handler.Exchange(sent[0]),
            "{\"status\":3,\"Parameters\":{\"Command\":\"PING\",\"CommandAtribute\":\"attr\","
            "\"CommandParam.id\":\"7\",\"LANG\":\"\xD1\x80\xD1\x83\"}}");
  EXPECT_EQ(handler.Exchange(sent[1]),
            "{\"status\":3,\"Parameters\":{\"Description\":\"Test handler of pendrel\","
            "\"Name\":\"TestHandler\",\"Version\":\"1.0\"}}");
  EXPECT_EQ(handler.Exchange(sent[2]),
            "{\"status\":3,\"Parameters\":{\"Description\":\"Test task T\xE4\xB8\xAD\","
            "\"Name\":\"Task T\xE4\xB8\xAD\"}}");
  EXPECT_EQ(handler.Exchange(sent[3]), Answer("InputFileSize", "123456789"));
  EXPECT_EQ(handler.Exchange(sent[4]), Answer("LibVersion", "4"));
  // The user "R&D" splits the query; the handler answers every pair it saw.
  EXPECT_EQ(handler.Exchange(sent[5]),
            "{\"status\":3,\"session\":\"17\",\"Parameters\":{\"D\":\"\",\"HandleTaskID\":\"42\","
            "\"HandlerCode\":\"H1\",\"HandlerTaskCode\":\"T7\",\"LogFileName\":\"run.log\","
            "\"SessionKey\":\"17\",\"TaskTimeoutS\":\"600\",\"User\":\"R\"}}");
  Pendrel::CResponse echo;
  ASSERT_TRUE(echo.FromJsonString(handler.Exchange(sent[6])));
  ASSERT_EQ(echo.Data.size(), 1u);
  EXPECT_EQ(echo.Data[0].Data, file.Data);
  EXPECT_EQ(echo.Data[0].FileName, L"in.txt");
  Pendrel::CResponse all;
  ASSERT_TRUE(all.FromJsonString(handler.Exchange(sent[7])));
  ASSERT_EQ(all.Data.size(), 1u);
  EXPECT_EQ(all.Data[0].Data, file.Data);
  handler.Server().Post(sent[8]);
  EXPECT_EQ(handler.Exchange(sent[9]),
            Pendrel::CResponse(std::wstring(L"Unknown message: Nonsense")).ToJsonString());

  EXPECT_EQ(WaitForRecordedMessages(record, sent.size(), 10s), sent);
  EXPECT_EQ(handler.Finish(), kExitNormal);
}

TEST(TestHandlerProgram, EchoCarriesTheOpenSessionsKey) {
  TestHandlerRun handler(L"");
  ASSERT_TRUE(handler.Open());
  Pendrel::CResponse before;
  ASSERT_TRUE(before.FromJsonString(handler.Exchange(PingRequest().ToJsonString())));
  EXPECT_EQ(before.Session, L"");
  handler.Exchange("OnCreateSession&SessionKey=9&User=u");
  Pendrel::CResponse during;
  ASSERT_TRUE(during.FromJsonString(handler.Exchange(PingRequest().ToJsonString())));
  EXPECT_EQ(during.Session, L"9");
  handler.Server().Post("OnCloseSession");
  Pendrel::CResponse after;
  ASSERT_TRUE(after.FromJsonString(handler.Exchange(PingRequest().ToJsonString())));
  EXPECT_EQ(after.Session, L"");
  EXPECT_EQ(handler.Finish(), kExitNormal);
}

TEST(TestHandlerProgram, QueryAnswersFollowTheOptions) {
  TestHandlerRun handler(
      L"--info \"My name,My text,9.9\" --lib-version x7 --input-file-size 5000000000 "
      L"--omit Version --omit Description");
  ASSERT_TRUE(handler.Open());
  EXPECT_EQ(handler.Exchange("RequestHandlerInfo"), Answer("Name", "My name"));
  EXPECT_EQ(handler.Exchange("RequestHandlerTaskInfo&TaskCode=A"), Answer("Name", "Task A"));
  EXPECT_EQ(handler.Exchange("RequestLibVersion"), Answer("LibVersion", "x7"));
  EXPECT_EQ(handler.Exchange("RequestInputFileSize"), Answer("InputFileSize", "5000000000"));
  EXPECT_EQ(handler.Finish(), kExitNormal);
}

TEST(TestHandlerProgram, InfoOptionTakesThreeTexts) {
  TestHandlerRun handler(L"--info \"N,D,V\"");
  ASSERT_TRUE(handler.Open());
  EXPECT_EQ(
      handler.Exchange("RequestHandlerInfo"),
      "{\"status\":3,\"Parameters\":{\"Description\":\"D\",\"Name\":\"N\",\"Version\":\"V\"}}");
  EXPECT_EQ(handler.Finish(), kExitNormal);
}

TEST(TestHandlerProgram, NotJsonAnswersEveryMessageButTheCloseNotice) {
  TestHandlerRun handler(L"--not-json");
  ASSERT_TRUE(handler.Open());
  EXPECT_EQ(handler.Exchange("RequestLibVersion"), kNotJsonAnswer);
  handler.Server().Post("OnCloseSession");
  EXPECT_EQ(handler.Exchange(PingRequest().ToJsonString()), kNotJsonAnswer);
  EXPECT_EQ(handler.Next(300ms), "<none>");
  EXPECT_EQ(handler.Finish(), kExitNormal);
}

TEST(TestHandlerProgram, NeverAnswerRecordsButStaysSilentUntilThePipeCloses) {
  TempDir folder;
  const std::filesystem::path record = folder.path() / "record.txt";
  TestHandlerRun handler(L"--never-answer --record " + Quoted(record));
  ASSERT_TRUE(handler.Open());
  EXPECT_EQ(handler.Exchange("RequestLibVersion", 500ms), "<none>");
  EXPECT_EQ(WaitForRecordedMessages(record, 1, 10s), std::vector<std::string>{"RequestLibVersion"});
  EXPECT_EQ(handler.Finish(), kExitNormal);
}

TEST(TestHandlerProgram, DelayHoldsEachAnswerBack) {
  TestHandlerRun handler(L"--delay-ms 400");
  ASSERT_TRUE(handler.Open());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(handler.Exchange("RequestLibVersion"), Answer("LibVersion", "4"));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 400ms);
  EXPECT_EQ(handler.Finish(), kExitNormal);
}

TEST(TestHandlerProgram, FloodSendsUnrequestedMessagesRightAfterConnecting) {
  TestHandlerRun handler(L"--flood 3");
  ASSERT_TRUE(handler.Open());
  for (unsigned k = 1; k <= 3; ++k) EXPECT_EQ(handler.Next(), FloodMessage(k));
  EXPECT_EQ(FloodMessage(2), [] {
    Pendrel::CResponse response;
    response.Parameters[L"Flood"] = L"2";
    return response.ToJsonString();
  }());
  EXPECT_EQ(handler.Exchange("RequestLibVersion"), Answer("LibVersion", "4"));
  EXPECT_EQ(handler.Finish(), kExitNormal);
}

TEST(TestHandlerProgram, ExitAfterClosesThePipeOnceItsAnswersAreOut) {
  TestHandlerRun handler(L"--exit-after 2");
  ASSERT_TRUE(handler.Open());
  EXPECT_EQ(handler.Exchange("RequestLibVersion"), Answer("LibVersion", "4"));
  handler.Server().Post("OnCloseSession");
  EXPECT_EQ(handler.Next(), "<error>");
  EXPECT_EQ(handler.Process().Wait(10s), kExitNormal);
}

TEST(TestHandlerProgram, ExitAfterZeroLeavesRightAfterConnecting) {
  TestHandlerRun handler(L"--exit-after 0");
  ASSERT_TRUE(handler.Open());
  EXPECT_EQ(handler.Next(), "<error>");
  EXPECT_EQ(handler.Process().Wait(10s), kExitNormal);
}

TEST(TestHandlerProgram, ExitBeforeConnectNeverOpensThePipe) {
  TestHandlerRun handler(L"--exit-before-connect");
  ASSERT_TRUE(handler.Process().Started());
  EXPECT_EQ(handler.Process().Wait(10s), kExitNormal);
  EXPECT_FALSE(handler.Open(500ms));
}

TEST(TestHandlerProgram, NeverConnectEndsWithItsLifetime) {
  TestHandlerRun handler(L"--never-connect --lifetime-ms 1500");
  EXPECT_FALSE(handler.Open(500ms));
  EXPECT_EQ(handler.Process().Wait(10s), kExitLifetime);
}

TEST(TestHandlerProgram, CrashMidAnswerLeavesTheServerWithAHalfMessage) {
  TempDir folder;
  const std::filesystem::path record = folder.path() / "record.txt";
  TestHandlerRun handler(L"--crash-mid-answer 2 --record " + Quoted(record));
  ASSERT_TRUE(handler.Open());
  EXPECT_EQ(handler.Exchange("RequestLibVersion"), "<error>");
  EXPECT_FALSE(handler.Server().ErrorText().empty());
  EXPECT_EQ(handler.Process().Wait(10s), kExitCrashed);
  EXPECT_EQ(ReadRecordedMessages(record), std::vector<std::string>{"RequestLibVersion"});
}

TEST(TestHandlerProgram, BrokenAtAnswersTheMessagesBeforeNormally) {
  TestHandlerRun handler(L"--crash-mid-answer 1 --broken-at 3");
  ASSERT_TRUE(handler.Open());
  EXPECT_EQ(handler.Exchange("RequestLibVersion"), Answer("LibVersion", "4"));
  handler.Server().Post("OnCloseSession");
  EXPECT_EQ(handler.Exchange("RequestHandlerInfo"), "<error>");
  EXPECT_EQ(handler.Process().Wait(10s), kExitCrashed);
}

TEST(TestHandlerProgram, LyingHeaderMakesTheServerFailWithInvalidData) {
  TestHandlerRun handler(L"--lying-header");
  ASSERT_TRUE(handler.Open());
  EXPECT_EQ(handler.Exchange("RequestLibVersion"), "<error>");
  const std::string error = Pendrel::Utf16ToUtf8(handler.Server().ErrorText());
  EXPECT_NE(error.find("#13"), std::string::npos) << error;
  // The server's end is gone; the handler notices and leaves.
  EXPECT_EQ(handler.Finish(), kExitNormal);
}

TEST(TestHandlerProgram, RefusesUnknownOptionsBeforeConnecting) {
  for (const wchar_t* arguments :
       {L"--bogus", L"--delay-ms", L"--delay-ms x", L"--info a,b", L"--broken-at 0"}) {
    HandlerProcess process(TestHandlerPath(), UniqueKitPipeName(), 0, arguments);
    EXPECT_EQ(process.Wait(10s), kExitBadArguments) << Pendrel::Utf16ToUtf8(arguments);
  }
}

}  // namespace
}  // namespace pendrel_test
