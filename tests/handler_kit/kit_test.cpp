// The kit's dispatch (what each message gets) and its loop over a real pipe, with this test
// as the library's side.
#include "handler_kit/CHandlerKit.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>  // std::tmpfile
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "json/TextConversion.h"
#include "message/CRequest.h"
#include "message/CResponse.h"
#include "tests/handler_kit/KitTestSupport.h"

namespace PendrelKit {
namespace {

using pendrel_test::KitConversation;
using namespace std::chrono_literals;

constexpr char kSessionMessage[] =
    "OnCreateSession&SessionKey=17&User=operator1&HandleTaskID=42&HandlerCode=H1"
    "&HandlerTaskCode=T7&LogFileName=run.log&TaskTimeoutS=600";

std::string AnswerTo(CHandlerKit& kit, const std::string& message) {
  std::string answer = "<no answer>";
  kit.Dispatch(message, answer);
  return answer;
}

std::string ErrorAnswer(const std::wstring& message) {
  return Pendrel::CResponse(message).ToJsonString();
}

Pendrel::CRequest SampleRequest() {
  Pendrel::CRequest request;
  request.Command = L"PING";
  request.CommandAtribute = L"a";
  request.RequestParams[L"LANG"] = L"en";
  Pendrel::CMimeFile file;
  file.Type = Pendrel::Text;
  file.FileName = L"in.txt";
  file.Name = L"in";
  file.Data = "hello";
  request.InputData.push_back(file);
  return request;
}

struct DefaultRow {
  const char* message;
  std::string answer;
};

TEST(HandlerKitDispatch, DefaultsAnswerFromTheKitsFields) {
  CHandlerKit kit;
  kit.Info = {L"Echo", L"Echoes", L"2.1"};
  kit.Tasks[L"T7"] = {L"Seven", L"The seventh"};
  kit.InputFileSize = 5000000000ull;
  kit.LibVersion = 9;
  const DefaultRow rows[] = {
      {"RequestHandlerInfo",
       "{\"status\":3,\"Parameters\":{\"Description\":\"Echoes\",\"Name\":\"Echo\","
       "\"Version\":\"2.1\"}}"},
      {"RequestHandlerTaskInfo&TaskCode=T7",
       "{\"status\":3,\"Parameters\":{\"Description\":\"The seventh\",\"Name\":\"Seven\"}}"},
      {"RequestHandlerTaskInfo&TaskCode=T8", ErrorAnswer(L"Unknown task code: T8")},
      {"RequestInputFileSize", "{\"status\":3,\"Parameters\":{\"InputFileSize\":\"5000000000\"}}"},
      {"RequestLibVersion", "{\"status\":3,\"Parameters\":{\"LibVersion\":\"9\"}}"},
      {"RequestAllOutputFiles", "{\"status\":3,\"Parameters\":{}}"},
      {kSessionMessage, "{\"status\":3,\"Parameters\":{}}"},
      {"OnCloseSession", "<no answer>"},
      {"{\"Command\":\"PING\"}", ErrorAnswer(L"This handler serves no requests")},
      {"Hello&x=1", ErrorAnswer(L"Unknown message: Hello")},
      {"", ErrorAnswer(L"Unknown message: ")},
  };
  for (const DefaultRow& row : rows) {
    EXPECT_EQ(AnswerTo(kit, row.message), row.answer) << row.message;
  }
}

TEST(HandlerKitDispatch, DefaultLibVersionIsTheRecordInterfaceVersion) {
  CHandlerKit kit;
  EXPECT_EQ(kit.LibVersion, Pendrel::Version);
  EXPECT_EQ(AnswerTo(kit, "RequestLibVersion"),
            "{\"status\":3,\"Parameters\":{\"LibVersion\":\"4\"}}");
  EXPECT_EQ(AnswerTo(kit, "RequestInputFileSize"),
            "{\"status\":3,\"Parameters\":{\"InputFileSize\":\"0\"}}");
}

TEST(HandlerKitDispatch, UnknownMessagesAreQuotedShort) {
  CHandlerKit kit;
  const std::string longWord(200, 'w');
  EXPECT_EQ(AnswerTo(kit, longWord), ErrorAnswer(L"Unknown message: " + std::wstring(64, L'w')));
}

TEST(HandlerKitDispatch, CallbacksReceiveWhatTheMessagesCarry) {
  CHandlerKit kit;
  Pendrel::CRequest received;
  std::wstring taskCode;
  CSessionInfo session;
  int closed = 0;
  std::string unknown;
  kit.OnRequest = [&](const Pendrel::CRequest& request) {
    received = request;
    return Pendrel::CResponse(static_cast<Pendrel::EStatus>(1));
  };
  kit.OnTaskInfo = [&](const std::wstring& code) {
    taskCode = code;
    return TaskInfoAnswer({L"n", L"d"});
  };
  kit.OnCreateSession = [&](const CSessionInfo& info) {
    session = info;
    Pendrel::CResponse response;
    response.Session = info.SessionKey;
    return response;
  };
  kit.OnCloseSession = [&] { ++closed; };
  kit.OnUnknownMessage = [&](const std::string& message) {
    unknown = message;
    return Pendrel::CResponse(L"nope");
  };
  kit.OnHandlerInfo = [] { return HandlerInfoAnswer({L"a", L"b", L"c"}); };
  kit.OnInputFileSize = [] { return InputFileSizeAnswer(1); };
  kit.OnLibVersion = [] { return LibVersionAnswer(2); };
  kit.OnAllOutputFiles = [] {
    Pendrel::CResponse response;
    Pendrel::CMimeFile file;
    file.FileName = L"out.txt";
    file.Name = L"out";
    file.Data = "x";
    response.Data.push_back(file);
    return response;
  };

  const Pendrel::CRequest request = SampleRequest();
  EXPECT_EQ(AnswerTo(kit, request.ToJsonString()), "{\"status\":1,\"Parameters\":{}}");
  EXPECT_EQ(received.ToJsonString(), request.ToJsonString());
  EXPECT_EQ(AnswerTo(kit, "RequestHandlerTaskInfo&TaskCode=a&b"),
            "{\"status\":3,\"Parameters\":{\"Description\":\"d\",\"Name\":\"n\"}}");
  EXPECT_EQ(taskCode, L"a&b");
  EXPECT_EQ(AnswerTo(kit, kSessionMessage), "{\"status\":3,\"session\":\"17\",\"Parameters\":{}}");
  EXPECT_EQ(session.HandlerTaskCode, L"T7");
  EXPECT_EQ(session.TaskTimeoutS, 600u);
  EXPECT_EQ(session.Pairs.size(), 7u);
  std::string answer = "untouched";
  EXPECT_FALSE(kit.Dispatch("OnCloseSession", answer));
  EXPECT_EQ(answer, "untouched");
  EXPECT_EQ(closed, 1);
  EXPECT_EQ(AnswerTo(kit, "Bye"), ErrorAnswer(L"nope"));
  EXPECT_EQ(unknown, "Bye");
  EXPECT_EQ(AnswerTo(kit, "RequestHandlerInfo"),
            HandlerInfoAnswer({L"a", L"b", L"c"}).ToJsonString());
  EXPECT_EQ(AnswerTo(kit, "RequestInputFileSize"), InputFileSizeAnswer(1).ToJsonString());
  EXPECT_EQ(AnswerTo(kit, "RequestLibVersion"), LibVersionAnswer(2).ToJsonString());
  EXPECT_EQ(AnswerTo(kit, "RequestAllOutputFiles"),
            "{\"Data\":[{\"Type\":3,\"FileName\":\"out.txt\",\"Title\":\"out\",\"Data\":\"x\","
            "\"IsAttachment\":true}],\"status\":3,\"Parameters\":{}}");
}

TEST(HandlerKitDispatch, ARequestThatIsNotJsonReachesTheCallbackEmpty) {
  CHandlerKit kit;
  Pendrel::CRequest received = SampleRequest();
  kit.OnRequest = [&](const Pendrel::CRequest& request) {
    received = request;
    return Pendrel::CResponse();
  };
  EXPECT_EQ(AnswerTo(kit, "{not json"), "{\"status\":3,\"Parameters\":{}}");
  EXPECT_EQ(received.Command, L"");
  EXPECT_TRUE(received.InputData.empty());
}

TEST(HandlerKitDispatch, ARequestCallbackMayTakeTheFilesOfTheRequest) {
  CHandlerKit kit;
  kit.OnRequest = [](Pendrel::CRequest& request) {
    Pendrel::CResponse response;
    response.Data = std::move(request.InputData);
    response.Parameters = std::move(request.RequestParams);
    return response;
  };
  const Pendrel::CRequest request = SampleRequest();
  Pendrel::CResponse expected;
  expected.Data = request.InputData;
  expected.Parameters = request.RequestParams;
  EXPECT_EQ(AnswerTo(kit, request.ToJsonString()), expected.ToJsonString());
}

TEST(HandlerKitDispatch, ACallbackThatThrowsIsAnsweredWithAnError) {
  CHandlerKit kit;
  kit.OnRequest = [](const Pendrel::CRequest&) -> Pendrel::CResponse {
    throw std::runtime_error("disk full");
  };
  kit.OnLibVersion = []() -> Pendrel::CResponse { throw 42; };
  kit.OnCloseSession = [] { throw std::runtime_error("ignored"); };
  EXPECT_EQ(AnswerTo(kit, "{}"), ErrorAnswer(L"The handler failed: disk full"));
  EXPECT_EQ(AnswerTo(kit, "RequestLibVersion"), ErrorAnswer(L"The handler failed"));
  EXPECT_EQ(AnswerTo(kit, "OnCloseSession"), "<no answer>");
}

// ---- Over the pipe ----

TEST(HandlerKitPipe, AnswersEveryMessageInOrderAndCloseSessionNot) {
  CHandlerKit kit;
  kit.Info = {L"Echo", L"Echoes", L"1"};
  std::vector<std::string> calls;  // written on Run's thread, read after Finish
  kit.OnRequest = [&](const Pendrel::CRequest& request) {
    calls.push_back("request " + Pendrel::Utf16ToUtf8(request.Command));
    Pendrel::CResponse response;
    response.Parameters[L"Command"] = request.Command;
    return response;
  };
  kit.OnCreateSession = [&](const CSessionInfo& session) {
    calls.push_back("create " + Pendrel::Utf16ToUtf8(session.User));
    return Pendrel::CResponse();
  };
  kit.OnCloseSession = [&] { calls.push_back("close"); };

  KitConversation conversation(kit);
  ASSERT_TRUE(conversation.Connected());
  EXPECT_EQ(conversation.Exchange(SampleRequest().ToJsonString()),
            "{\"status\":3,\"Parameters\":{\"Command\":\"PING\"}}");
  EXPECT_EQ(conversation.Exchange("RequestHandlerInfo"),
            "{\"status\":3,\"Parameters\":{\"Description\":\"Echoes\",\"Name\":\"Echo\","
            "\"Version\":\"1\"}}");
  EXPECT_EQ(conversation.Exchange(kSessionMessage), "{\"status\":3,\"Parameters\":{}}");
  // No answer to the notice: the next answer is the next query's.
  conversation.Server().Post("OnCloseSession");
  EXPECT_EQ(conversation.Exchange("RequestLibVersion"),
            "{\"status\":3,\"Parameters\":{\"LibVersion\":\"4\"}}");
  EXPECT_EQ(conversation.Next(300ms), "<none>");
  EXPECT_EQ(conversation.Finish(), kExitPipeClosed);
  EXPECT_EQ(calls, (std::vector<std::string>{"request PING", "create operator1", "close"}));
  // The library closing its end is what ended the loop.
  EXPECT_FALSE(kit.LastErrorText().empty());
}

TEST(HandlerKitPipe, AnswersMessagesPostedTogetherOneForOneInOrder) {
  CHandlerKit kit;
  kit.OnTaskInfo = [](const std::wstring& code) { return TaskInfoAnswer({code, L""}); };
  KitConversation conversation(kit);
  ASSERT_TRUE(conversation.Connected());
  // The answers come before they are waited for: the host's end keeps them all.
  conversation.Server().SetMaxQueuedMessages(20);
  for (int i = 0; i < 20; ++i) {
    conversation.Server().Post("RequestHandlerTaskInfo&TaskCode=" + std::to_string(i));
    if (i % 5 == 0) conversation.Server().Post("OnCloseSession");
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(conversation.Next(),
              "{\"status\":3,\"Parameters\":{\"Description\":\"\",\"Name\":\"" + std::to_string(i) +
                  "\"}}");
  }
  EXPECT_EQ(conversation.Next(300ms), "<none>");
}

TEST(HandlerKitPipe, CarriesLargeRequestsAndAnswersWhole) {
  CHandlerKit kit;
  kit.OnRequest = [](const Pendrel::CRequest& request) {
    Pendrel::CResponse response;
    response.Data = request.InputData;
    return response;
  };
  KitConversation conversation(kit);
  ASSERT_TRUE(conversation.Connected());
  Pendrel::CRequest request = SampleRequest();
  request.InputData[0].Data = std::string(3 * 32768 + 5, 'z');
  Pendrel::CResponse expected;
  expected.Data = request.InputData;
  EXPECT_EQ(conversation.Exchange(request.ToJsonString(), 30s), expected.ToJsonString());
}

TEST(HandlerKitPipe, OnMessageSeesEveryMessageFirstAndMayTakeItOver) {
  CHandlerKit kit;
  std::vector<std::string> seen;
  kit.OnMessage = [&](const std::string& message) {
    seen.push_back(message);
    if (message == "RequestLibVersion") {
      std::string answer;
      kit.Dispatch(message, answer);
      kit.Post("first");
      kit.Post(answer);
      return EMessageAction::Consumed;
    }
    if (message == "RequestInputFileSize") return EMessageAction::Consumed;  // never answered
    if (message == "RequestHandlerInfo") throw std::runtime_error("dispatched all the same");
    return EMessageAction::Dispatch;
  };
  KitConversation conversation(kit);
  ASSERT_TRUE(conversation.Connected());
  EXPECT_EQ(conversation.Exchange("RequestLibVersion"), "first");
  EXPECT_EQ(conversation.Next(), "{\"status\":3,\"Parameters\":{\"LibVersion\":\"4\"}}");
  EXPECT_EQ(conversation.Exchange("RequestInputFileSize", 300ms), "<none>");
  EXPECT_EQ(conversation.Exchange("RequestHandlerInfo"),
            "{\"status\":3,\"Parameters\":{\"Description\":\"\",\"Name\":\"\",\"Version\":\"\"}}");
  EXPECT_EQ(conversation.Finish(), kExitPipeClosed);
  EXPECT_EQ(seen, (std::vector<std::string>{"RequestLibVersion", "RequestInputFileSize",
                                            "RequestHandlerInfo"}));
}

TEST(HandlerKitPipe, OnConnectedRunsBeforeTheFirstMessageAndMayPost) {
  CHandlerKit kit;
  // Post's result reaches the test once OnConnected has it, which may be after the message
  // itself has arrived.
  std::promise<bool> posted;
  kit.OnConnected = [&] { posted.set_value(kit.Post("hello")); };
  KitConversation conversation(kit);
  ASSERT_TRUE(conversation.Connected());
  EXPECT_EQ(conversation.Next(), "hello");
  std::future<bool> result = posted.get_future();
  ASSERT_EQ(result.wait_for(10s), std::future_status::ready);
  EXPECT_TRUE(result.get());
  EXPECT_EQ(conversation.Exchange("RequestLibVersion"),
            "{\"status\":3,\"Parameters\":{\"LibVersion\":\"4\"}}");
}

TEST(HandlerKitPipe, StopEndsRunAfterTheAnswerInHandIsOut) {
  CHandlerKit kit;
  kit.OnLibVersion = [&] {
    kit.Stop();
    return LibVersionAnswer(5);
  };
  KitConversation conversation(kit);
  ASSERT_TRUE(conversation.Connected());
  EXPECT_EQ(conversation.Exchange("RequestLibVersion"),
            "{\"status\":3,\"Parameters\":{\"LibVersion\":\"5\"}}");
  // The kit closed its end: the server learns of it.
  std::string message;
  EXPECT_EQ(conversation.Server().WaitForMessage(message, 10s), Pendrel::EWaitResult::Error);
  EXPECT_EQ(conversation.Finish(), kExitPipeClosed);
  EXPECT_TRUE(kit.LastErrorText().empty());
}

TEST(HandlerKitPipe, StopFromAnotherThreadEndsAnIdleRun) {
  CHandlerKit kit;
  KitConversation conversation(kit);
  ASSERT_TRUE(conversation.Connected());
  kit.Stop();
  std::string message;
  EXPECT_EQ(conversation.Server().WaitForMessage(message, 10s), Pendrel::EWaitResult::Error);
  EXPECT_EQ(conversation.Finish(), kExitPipeClosed);
}

TEST(HandlerKitPipe, RunWithoutAServerEndGivesUpAfterConnectTime) {
  CHandlerKit kit;
  kit.ConnectTimeMs = 300;
  CHandlerArguments arguments;
  arguments.PipeName = pendrel_test::UniqueKitPipeName();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kit.Run(arguments), kExitNoConnection);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, 300ms);
  EXPECT_LT(took, 5s);
  EXPECT_FALSE(kit.Post("nobody listens"));
}

TEST(HandlerKitPipe, StopWhileConnectingEndsRunAtOnce) {
  CHandlerKit kit;
  kit.ConnectTimeMs = 60000;
  CHandlerArguments arguments;
  arguments.PipeName = pendrel_test::UniqueKitPipeName();
  auto run = std::async(std::launch::async, [&] { return kit.Run(arguments); });
  std::this_thread::sleep_for(100ms);
  kit.Stop();
  ASSERT_EQ(run.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(run.get(), kExitPipeClosed);
  // Sticky: a later Run does not even try.
  EXPECT_EQ(kit.Run(arguments), kExitPipeClosed);
}

// The text written to a temporary file that stands for standard error.
class CapturedDiagnostics {
 public:
  CapturedDiagnostics() : m_file(std::tmpfile()) {}
  ~CapturedDiagnostics() {
    if (m_file) std::fclose(m_file);
  }
  CapturedDiagnostics(const CapturedDiagnostics&) = delete;
  CapturedDiagnostics& operator=(const CapturedDiagnostics&) = delete;
  std::FILE* File() const { return m_file; }
  std::string Text() const {
    std::string text;
    std::rewind(m_file);
    char buffer[1024];
    std::size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, m_file)) > 0) text.append(buffer, got);
    return text;
  }

 private:
  std::FILE* m_file;
};

TEST(HandlerKitPipe, RunWithoutAServerEndSaysWhichPipeItCouldNotReach) {
  CapturedDiagnostics diagnostics;
  ASSERT_NE(diagnostics.File(), nullptr);
  CHandlerKit kit;
  kit.ConnectTimeMs = 100;
  kit.Diagnostics = diagnostics.File();
  CHandlerArguments arguments;
  arguments.PipeName = pendrel_test::UniqueKitPipeName();
  EXPECT_EQ(kit.Run(arguments), kExitNoConnection);
  const std::string expected = "pendrel handler: cannot connect to the pipe \"" +
                               Pendrel::Utf16ToUtf8(arguments.PipeName) +
                               "\" of its host within 100 ms";
  const std::string text = diagnostics.Text();
  EXPECT_EQ(text.rfind(expected, 0), 0u) << text;
  EXPECT_NE(text.find("A handler is started by its host, e.g. pendrel)\n"), std::string::npos)
      << text;
  EXPECT_EQ(text.find('\n'), text.size() - 1) << "one line: " << text;
}

TEST(HandlerKitPipe, RunWithArgcArgvSaysHowToRunTheHandlerByHand) {
  CapturedDiagnostics diagnostics;
  ASSERT_NE(diagnostics.File(), nullptr);
  CHandlerKit kit;
  kit.Diagnostics = diagnostics.File();
  char path[] = "./h";
  char* narrow[] = {path, nullptr};
  EXPECT_EQ(kit.Run(1, narrow), kExitBadArguments);
  EXPECT_EQ(diagnostics.Text(), StartedByHandText("./h", EArgumentError::MissingPipeName) + "\n");
}

TEST(HandlerKitPipe, RunWithArgcArgvRefusesABadCommandLine) {
  CHandlerKit kit;
  kit.Diagnostics = nullptr;
  char path[] = "h";
  char mode[] = "_DM_=1";
  char* narrow[] = {path, mode, nullptr};
  EXPECT_EQ(kit.Run(2, narrow), kExitBadArguments);
  wchar_t widePath[] = L"h";
  wchar_t wideName[] = L"_MN_=x";
  wchar_t wideMode[] = L"_DM_=one";
  wchar_t* wide[] = {widePath, wideName, wideMode, nullptr};
  EXPECT_EQ(kit.Run(3, wide), kExitBadArguments);
}

}  // namespace
}  // namespace PendrelKit
