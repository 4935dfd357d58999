// CHandler end to end against the test handler program: starting, the exchange and its
// error codes, the queries, sessions and the transaction log.
#include "handler/CHandler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "handler/detail/HandlerSettings.h"
#include "handler/detail/LogWriter.h"
#include "json/TextConversion.h"
#include "pipe/detail/PipeTransport.h"
#include "tests/handler/test_handler/TestHandler.h"
#include "tests/support/PatternBytes.h"
#include "tests/support/Platform.h"
#include "tests/support/TempDir.h"

namespace CTolvane {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using pendrel_test::AsTextModeLines;
using pendrel_test::PatternBytes;
using pendrel_test::ReadRecordedMessages;
using pendrel_test::TempDir;
using pendrel_test::TestHandlerPath;
using pendrel_test::WaitForRecordedMessages;

using Pendrel::CChannelFailure;
using Pendrel::EChannelFailure;

// The handler's failure code, and its text is the one the channel makes of it.
CChannelFailure FailureOf(CHandler& handler) {
  const CChannelFailure failure = handler.GetChannelFailure();
  EXPECT_EQ(handler.GetResponseErrorMessage(), Pendrel::NamedPipeChannel::TextOf(failure));
  return failure;
}

std::wstring Quoted(const std::filesystem::path& path) { return L"\"" + path.wstring() + L"\""; }

// A started test handler that records what it receives.
class StartedHandler {
 public:
  explicit StartedHandler(const std::wstring& options = L"", int mode = 0) {
    m_record = m_dir.path() / "record.bin";
    m_done = m_dir.path() / "done.txt";
    std::wstring arguments = L"--record " + Quoted(m_record) + L" --done " + Quoted(m_done);
    if (!options.empty()) arguments += L" " + options;
    m_result = handler.Start(TestHandlerPath(), mode, arguments);
  }

  EErrorCode StartResult() const { return m_result; }
  // What the handler has recorded once it holds at least `atLeast` messages (or after 5 s).
  std::vector<std::string> Received(std::size_t atLeast = 0) const {
    return WaitForRecordedMessages(m_record, atLeast, 5s);
  }
  // Lets go of the handler (the pipe closes) and returns all it ever received, once it has
  // said it is done (or after 10 s).
  std::vector<std::string> ReceivedInTheEnd() {
    handler = CHandler();
    pendrel_test::WaitForFile(m_done, 10s);
    return pendrel_test::ReadRecordedMessages(m_record);
  }
  TempDir& Dir() { return m_dir; }

  CHandler handler;

 private:
  TempDir m_dir;
  std::filesystem::path m_record;
  std::filesystem::path m_done;
  EErrorCode m_result = Ok;
};

Pendrel::CMimeFile File(Pendrel::EMimeType type, const std::wstring& fileName, std::string data) {
  Pendrel::CMimeFile file;
  file.Type = type;
  file.FileName = fileName;
  file.Name = fileName.substr(0, fileName.rfind(L'.'));
  file.Data = std::move(data);
  return file;
}

Pendrel::CRequest SampleRequest(const std::wstring& command = L"PING") {
  Pendrel::CRequest request;
  request.Command = command;
  request.CommandAtribute = L"plan";
  request.CommandParams[L"PAGE"] = L"2";
  request.RequestParams[L"LANG"] = L"\u00e9n";
  return request;
}

// --- Start ----------------------------------------------------------------------------------

TEST(HandlerStart, MissingProgramFailsAtOnce) {
  CHandler handler;
  const auto start = Clock::now();
  EXPECT_EQ(handler.Start(L"pendrel-no-such-handler-program", 0, L""), StartFailed);
  EXPECT_LT(Clock::now() - start, 5s);
  EXPECT_EQ(handler.LastError(), StartFailed);
  EXPECT_EQ(handler.GetResponseErrorMessage(), L"Ошибка запуска обработчика #2\n");
  // ENOENT and ERROR_FILE_NOT_FOUND are both 2.
  EXPECT_EQ(FailureOf(handler), (CChannelFailure{EChannelFailure::LaunchFailed, 2}));
  Pendrel::CResponse response;
  EXPECT_EQ(handler.HandleRequest(SampleRequest(), response), NotStarted);
}

TEST(HandlerStart, HandlerThatExitsBeforeConnectingFailsAtOnce) {
  CHandler handler;
  const auto start = Clock::now();
  EXPECT_EQ(handler.Start(TestHandlerPath(), 0, L"--exit-before-connect"), StartFailed);
  EXPECT_LT(Clock::now() - start, 5s) << "noticed when the process ended, not after 10 s";
  EXPECT_EQ(FailureOf(handler).Failure, EChannelFailure::NoClient);
  EXPECT_EQ(handler.LastError(), StartFailed);
}

TEST(HandlerStart, HandlerThatNeverConnectsTimesOut) {
  detail::ScopedHandlerSettings settings;
  settings.Get().connectTimeLimitMs = 1500;
  CHandler handler;
  const auto start = Clock::now();
  // The handler ends long after the lowered limit: its end must not be what stops the wait.
  EXPECT_EQ(handler.Start(TestHandlerPath(), 0, L"--never-connect --lifetime-ms 6000"),
            StartFailed);
  const auto waited = Clock::now() - start;
  EXPECT_GE(waited, 1400ms);
  EXPECT_LT(waited, 5s) << "half of the default limit: the lowered one applied";
  EXPECT_EQ(FailureOf(handler).Failure, EChannelFailure::OpenTimedOut);
  // The channel exists but never connected: queries are not started either.
  unsigned version = 0;
  EXPECT_EQ(handler.RequestLibVersion(version), NotStarted);
  Pendrel::CResponse response;
  EXPECT_EQ(handler.HandleRequest(SampleRequest(), response), NotStarted);
}

TEST(HandlerStart, PassesModeAndExtraArgumentsAndConnects) {
  StartedHandler started(L"--info \"A b,Desc,9.9\"", 0);
  ASSERT_EQ(started.StartResult(), Ok);
  EXPECT_EQ(started.handler.LastError(), Ok);
  CHandlerInfo info;
  ASSERT_EQ(started.handler.RequestHandlerInfo(info), Ok);
  EXPECT_EQ(info.Name, L"A b");
  EXPECT_EQ(info.Description, L"Desc");
  EXPECT_EQ(info.Version, L"9.9");
}

TEST(HandlerStart, PathWithBlankAndPlusIsQuotedAndStarts) {
  TempDir dir;
  const std::filesystem::path folder = dir.path() / "my handlers+x";
  std::filesystem::create_directories(folder);
  const std::filesystem::path original(TestHandlerPath());
  const std::filesystem::path copy = folder / original.filename();
  std::filesystem::copy_file(original, copy);
  CHandler handler;
  ASSERT_EQ(handler.Start(copy.wstring(), 0, L""), Ok)
      << Pendrel::Utf16ToUtf8(handler.GetResponseErrorMessage());
  unsigned version = 0;
  EXPECT_EQ(handler.RequestLibVersion(version), Ok);
  EXPECT_EQ(version, 4u);
}

TEST(HandlerStart, SecondStartLetsGoOfTheFirstHandler) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  TempDir dir;
  const auto secondRecord = dir.path() / "second.bin";
  ASSERT_EQ(started.handler.Start(TestHandlerPath(), 0, L"--record " + Quoted(secondRecord)), Ok);
  Pendrel::CResponse response;
  ASSERT_EQ(started.handler.HandleRequest(SampleRequest(L"SECOND"), response), Ok);
  EXPECT_EQ(response.Parameters[L"Command"], L"SECOND");
  EXPECT_EQ(WaitForRecordedMessages(secondRecord, 1, 5s).size(), 1u);
  EXPECT_TRUE(started.Received().empty()) << "the first handler got nothing";
}

// --- Exchange -------------------------------------------------------------------------------

TEST(HandlerExchange, NotStartedHandlerReportsNotStarted) {
  CHandler handler;
  Pendrel::CResponse response;
  unsigned version = 0;
  EXPECT_EQ(handler.RequestLibVersion(version), NotStarted);
  EXPECT_EQ(handler.LastError(), Ok) << "DoRequest leaves the last error alone";
  EXPECT_EQ(handler.HandleRequest(SampleRequest(), response), NotStarted);
  EXPECT_EQ(handler.LastError(), NotStarted) << "HandleRequest makes it the last error";
}

TEST(HandlerExchange, SendsTheRequestJsonAndReadsTheAnswer) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  const Pendrel::CRequest request = SampleRequest();
  Pendrel::CResponse response;
  ASSERT_EQ(started.handler.HandleRequest(request, response), Ok);
  EXPECT_EQ(response.Parameters[L"Command"], L"PING");
  EXPECT_EQ(response.Parameters[L"CommandAtribute"], L"plan");
  EXPECT_EQ(response.Parameters[L"CommandParam.PAGE"], L"2");
  EXPECT_EQ(response.Parameters[L"LANG"], L"\u00e9n");
  const auto received = started.Received(1);
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0], request.ToJsonString());
}

TEST(HandlerExchange, CarriesOneAndThreeFilesBothWays) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  for (std::size_t count : {1u, 3u}) {
    Pendrel::CRequest request = SampleRequest();
    for (std::size_t i = 0; i < count; ++i) {
      request.InputData.push_back(
          File(Pendrel::Pdf, L"f" + std::to_wstring(i) + L".pdf", PatternBytes(1000 + i, i)));
    }
    Pendrel::CResponse response;
    ASSERT_EQ(started.handler.HandleRequest(request, response), Ok);
    EXPECT_EQ(response.Status, 1) << "an answer with files is a file list";
    ASSERT_EQ(response.Data.size(), count);
    for (std::size_t i = 0; i < count; ++i) {
      EXPECT_EQ(response.Data[i].FileName, request.InputData[i].FileName);
      EXPECT_TRUE(response.Data[i].Data == request.InputData[i].Data);
      EXPECT_EQ(response.Data[i].Type, Pendrel::Pdf);
    }
  }
}

TEST(HandlerExchange, CarriesFiftyMegabytesEachWay) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  Pendrel::CRequest request = SampleRequest();
  request.InputData.push_back(File(Pendrel::Zip, L"big.zip", PatternBytes(50u << 20, 7)));
  Pendrel::CResponse response;
  ASSERT_EQ(started.handler.HandleRequest(request, response), Ok);
  ASSERT_EQ(response.Data.size(), 1u);
  EXPECT_EQ(response.Data[0].Data.size(), request.InputData[0].Data.size());
  EXPECT_TRUE(response.Data[0].Data == request.InputData[0].Data);
}

TEST(HandlerExchange, AnswerThatIsNotJsonReadsAsEmptyAndKeepsTheHandlerUsable) {
  StartedHandler started(L"--not-json");
  ASSERT_EQ(started.StartResult(), Ok);
  Pendrel::CResponse response;
  response.Session = L"S1";
  response.Status = static_cast<Pendrel::EStatus>(7);
  ASSERT_EQ(started.handler.HandleRequest(SampleRequest(), response), Ok);
  EXPECT_EQ(response.Status, 0);
  EXPECT_TRUE(response.Session.empty());
  EXPECT_EQ(started.handler.HandleRequest(SampleRequest(), response), Ok);
  EXPECT_EQ(started.handler.LastError(), Ok);
}

TEST(HandlerExchange, TimeoutSticksAndNothingMoreIsSent) {
  StartedHandler started(L"--never-answer");
  ASSERT_EQ(started.StartResult(), Ok);
  started.handler.ResponseTimeoutS = 1;
  Pendrel::CResponse response;
  const auto start = Clock::now();
  EXPECT_EQ(started.handler.HandleRequest(SampleRequest(), response), ResponseTimeout);
  EXPECT_GE(Clock::now() - start, 900ms);
  const auto again = Clock::now();
  EXPECT_EQ(started.handler.HandleRequest(SampleRequest(), response), ResponseTimeout);
  CHandlerInfo info;
  EXPECT_EQ(started.handler.RequestHandlerInfo(info), ResponseTimeout);
  EXPECT_LT(Clock::now() - again, 1500ms) << "returned at once: two waits would take 2 s";
  EXPECT_EQ(started.handler.LastError(), ResponseTimeout);
  EXPECT_EQ(started.ReceivedInTheEnd().size(), 1u) << "only the first request went out";
}

TEST(HandlerExchange, HandlerKilledMidAnswerIsAChannelError) {
  StartedHandler started(L"--crash-mid-answer 2");
  ASSERT_EQ(started.StartResult(), Ok);
  Pendrel::CRequest request = SampleRequest();
  Pendrel::CResponse response;
  const auto start = Clock::now();
  EXPECT_EQ(started.handler.HandleRequest(request, response), ChannelError);
  EXPECT_LT(Clock::now() - start, 10s);
  const EChannelFailure failure = FailureOf(started.handler).Failure;
  EXPECT_TRUE(failure == EChannelFailure::PeerGone || failure == EChannelFailure::ReadFailed)
      << Pendrel::Utf16ToUtf8(started.handler.GetResponseErrorMessage());
  // Sticky: nothing more is sent; HandleRequest finds the pipe gone.
  unsigned version = 0;
  EXPECT_EQ(started.handler.RequestLibVersion(version), ChannelError);
  EXPECT_EQ(started.handler.HandleRequest(request, response), NotStarted);
}

TEST(HandlerExchange, LyingHeaderIsAReadFailure) {
  StartedHandler started(L"--lying-header");
  ASSERT_EQ(started.StartResult(), Ok);
  Pendrel::CResponse response;
  EXPECT_EQ(started.handler.HandleRequest(SampleRequest(), response), ChannelError);
  // 13: the header announces more payload than its packet holds.
  EXPECT_EQ(FailureOf(started.handler), (CChannelFailure{EChannelFailure::ReadFailed, 13}))
      << Pendrel::Utf16ToUtf8(started.handler.GetResponseErrorMessage());
}

TEST(HandlerExchange, QueriesDoNotCheckTheConnectionButHandleRequestDoes) {
  StartedHandler started(L"--exit-after 1");
  ASSERT_EQ(started.StartResult(), Ok);
  CHandler copy = started.handler;  // shares the pipe, keeps its own error state
  copy.ResponseTimeoutS = 1;
  CHandlerInfo info;
  ASSERT_EQ(started.handler.RequestHandlerInfo(info), Ok);
  unsigned version = 0;
  EXPECT_EQ(started.handler.RequestLibVersion(version), ChannelError);
  // The copy shares the failure: its query returns it at once, with the same text...
  const auto start = Clock::now();
  EXPECT_EQ(copy.RequestLibVersion(version), ChannelError);
  EXPECT_LT(Clock::now() - start, 900ms) << "the copy did not wait for an answer";
  EXPECT_EQ(FailureOf(copy), FailureOf(started.handler));
  // ...while HandleRequest of a copy sees the pipe is not connected.
  CHandler fresh(copy);
  Pendrel::CResponse response;
  EXPECT_EQ(fresh.HandleRequest(SampleRequest(), response), NotStarted);
  EXPECT_EQ(fresh.LastError(), NotStarted);
}

TEST(HandlerExchange, CopiesShareThePipe) {
  auto started = std::make_unique<StartedHandler>();
  ASSERT_EQ(started->StartResult(), Ok);
  CHandler copy(started->handler);
  CHandler assigned;
  assigned = copy;
  TempDir keep;
  started.reset();  // the original goes; the copies still drive the same handler
  Pendrel::CResponse response;
  EXPECT_EQ(copy.HandleRequest(SampleRequest(L"ONE"), response), Ok);
  EXPECT_EQ(response.Parameters[L"Command"], L"ONE");
  EXPECT_EQ(assigned.HandleRequest(SampleRequest(L"TWO"), response), Ok);
  EXPECT_EQ(response.Parameters[L"Command"], L"TWO");
  assigned = assigned;
  EXPECT_EQ(assigned.LastError(), Ok);
}

TEST(HandlerExchange, FailureOfOneCopyFailsEveryCopyWithoutSending) {
  StartedHandler started(L"--delay-ms 1500");
  ASSERT_EQ(started.StartResult(), Ok);
  auto copy = std::make_unique<CHandler>(started.handler);
  started.handler.ResponseTimeoutS = 1;
  Pendrel::CResponse response;
  EXPECT_EQ(started.handler.HandleRequest(SampleRequest(L"FIRST"), response), ResponseTimeout);
  // The first request's answer comes late; the copy must neither send nor take it.
  const auto start = Clock::now();
  EXPECT_EQ(copy->HandleRequest(SampleRequest(L"SECOND"), response), ResponseTimeout);
  EXPECT_LT(Clock::now() - start, 900ms) << "returned without waiting for an answer";
  EXPECT_TRUE(response.Parameters.empty()) << "another copy's answer was read";
  EXPECT_EQ(copy->LastError(), ResponseTimeout);
  CHandlerInfo info;
  EXPECT_EQ(copy->RequestHandlerInfo(info), ResponseTimeout);
  CHandler later(*copy);
  EXPECT_EQ(later.HandleRequest(SampleRequest(L"THIRD"), response), ResponseTimeout);
  copy.reset();
  later = CHandler();
  EXPECT_EQ(started.ReceivedInTheEnd().size(), 1u) << "only the first request went out";
}

TEST(HandlerExchange, NegativeResponseTimeTimesOutAtOnce) {
  // 2147484 × 1000 does not fit in 32 signed bits: the product is negative.
  for (const std::int32_t seconds : {-1, -120, 2147484}) {
    StartedHandler started(L"--delay-ms 300");
    ASSERT_EQ(started.StartResult(), Ok);
    started.handler.ResponseTimeoutS = seconds;
    Pendrel::CResponse response;
    const auto start = Clock::now();
    EXPECT_EQ(started.handler.HandleRequest(SampleRequest(), response), ResponseTimeout) << seconds;
    EXPECT_LT(Clock::now() - start, 250ms) << seconds;
  }
}

TEST(HandlerExchange, EightThreadsEachGetTheirOwnAnswer) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&started, &wrong, t] {
      for (int i = 0; i < 20; ++i) {
        const std::wstring command = L"T" + std::to_wstring(t) + L"_" + std::to_wstring(i);
        Pendrel::CResponse response;
        if (started.handler.HandleRequest(SampleRequest(command), response) != Ok ||
            response.Parameters[L"Command"] != command) {
          ++wrong;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(started.handler.LastError(), Ok);
}

TEST(HandlerExchange, FourHandlersAtOnce) {
  std::vector<std::unique_ptr<StartedHandler>> handlers;
  for (int i = 0; i < 4; ++i) {
    handlers.push_back(std::make_unique<StartedHandler>(L"--delay-ms 20"));
    ASSERT_EQ(handlers.back()->StartResult(), Ok);
  }
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&handlers, &wrong, i] {
      for (int k = 0; k < 5; ++k) {
        const std::wstring command = L"H" + std::to_wstring(i) + L"_" + std::to_wstring(k);
        Pendrel::CResponse response;
        if (handlers[i]->handler.HandleRequest(SampleRequest(command), response) != Ok ||
            response.Parameters[L"Command"] != command) {
          ++wrong;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
  for (auto& handler : handlers) EXPECT_EQ(handler->Received(5).size(), 5u);
}

// --- The handler's process ------------------------------------------------------------------

TEST(HandlerProcessEnd, NoProcessBeforeStartOrAfterALaunchFailure) {
  CHandler handler;
  EXPECT_EQ(handler.GetHandlerExit().How, EHandlerEnd::None);
  EXPECT_EQ(handler.GetStartErrorNumber(), 0u);
  EXPECT_EQ(handler.Start(L"pendrel-no-such-handler-program", 0, L""), StartFailed);
  EXPECT_EQ(handler.GetHandlerExit(1000).How, EHandlerEnd::None);
  EXPECT_EQ(handler.GetStartErrorNumber(), 2u) << "ENOENT, ERROR_FILE_NOT_FOUND";
}

TEST(HandlerProcessEnd, RunningHandlerHasNotEnded) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  EXPECT_EQ(started.handler.GetHandlerExit().How, EHandlerEnd::Running);
  EXPECT_EQ(started.handler.GetHandlerExit(50).How, EHandlerEnd::Running);
  EXPECT_EQ(started.handler.GetStartErrorNumber(), 0u);
}

TEST(HandlerProcessEnd, ExitStatusOfAHandlerThatEndedBeforeConnecting) {
  CHandler handler;
  EXPECT_EQ(handler.Start(TestHandlerPath(), 0, L"--exit-before-connect --exit-code 7"),
            StartFailed);
  const CHandlerExit end = handler.GetHandlerExit(10000);
  EXPECT_EQ(end.How, EHandlerEnd::Exited);
  EXPECT_EQ(end.Code, 7);
  EXPECT_EQ(handler.GetStartErrorNumber(), 0u) << "the program did start";
  EXPECT_EQ(FailureOf(handler).Failure, EChannelFailure::NoClient) << "texts and codes as before";
}

TEST(HandlerProcessEnd, ExitStatusAfterTheHandlerEndedOnItsOwn) {
  StartedHandler started(L"--exit-after 1 --exit-code 9");
  ASSERT_EQ(started.StartResult(), Ok);
  unsigned version = 0;
  ASSERT_EQ(started.handler.RequestLibVersion(version), Ok);
  const CHandlerExit end = started.handler.GetHandlerExit(10000);
  EXPECT_EQ(end.How, EHandlerEnd::Exited);
  EXPECT_EQ(end.Code, 9);
}

TEST(HandlerProcessEnd, StopClosesThePipeAndWaitsForTheEnd) {
  StartedHandler started(L"--exit-code 5");
  ASSERT_EQ(started.StartResult(), Ok);
  const CHandlerExit end = started.handler.Stop(10000);
  EXPECT_EQ(end.How, EHandlerEnd::Exited);
  EXPECT_EQ(end.Code, 5) << "the handler ended by itself once its pipe closed";
  EXPECT_EQ(started.handler.GetHandlerExit().How, EHandlerEnd::None);
  Pendrel::CResponse response;
  EXPECT_EQ(started.handler.HandleRequest(SampleRequest(), response), NotStarted);
  EXPECT_EQ(started.handler.Stop(0).How, EHandlerEnd::None);
}

TEST(HandlerProcessEnd, HandlerThatAbortsSaysHow) {
  StartedHandler started(L"--abort-on-request");
  ASSERT_EQ(started.StartResult(), Ok);
  Pendrel::CResponse response;
  EXPECT_EQ(started.handler.HandleRequest(SampleRequest(), response), ChannelError);
  const CHandlerExit end = started.handler.GetHandlerExit(10000);
  const std::pair<int, int> aborted = pendrel_test::AbortedProcessEnd();
  EXPECT_EQ(static_cast<int>(end.How), aborted.first);
  EXPECT_EQ(end.Code, aborted.second);
}

TEST(HandlerProcessEnd, TheHandlerIsToldTheFolderOfItsPipe) {
  // A value the host has is replaced, not passed on.
  const pendrel_test::ScopedEnvironmentVariable stale(Pendrel::Utf16ToUtf8(L"PENDREL_PIPE_DIR"),
                                                      std::string("stale"));
  StartedHandler started(L"--report-env PENDREL_PIPE_DIR");
  ASSERT_EQ(started.StartResult(), Ok);
  Pendrel::CResponse response;
  ASSERT_EQ(started.handler.HandleRequest(SampleRequest(), response), Ok);
  EXPECT_EQ(response.Parameters[L"Env"], Pendrel::detail::EndpointFolder());
  EXPECT_FALSE(Pendrel::detail::EndpointFolder().empty());
}

TEST(HandlerChildOutput, OutputAndErrorAreAppendedToTheFile) {
  TempDir dir;
  const std::filesystem::path file = dir.Write("handler.log", "before\n");
  CHandler handler;
  handler.ChildOutput = EChildOutput::File;
  handler.ChildOutputFile = file.wstring();
  // The handler prints before it connects: once Start returns, it has.
  ASSERT_EQ(handler.Start(TestHandlerPath(), 0, L"--print hello"), Ok);
  std::ifstream in(file, std::ios::binary);
  std::string text(std::istreambuf_iterator<char>(in), {});
  text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
  EXPECT_EQ(text, "before\nout:hello\nerr:hello\n");
}

TEST(HandlerChildOutput, FileThatCannotBeOpenedFailsTheStart) {
  TempDir dir;
  CHandler handler;
  handler.ChildOutput = EChildOutput::File;
  handler.ChildOutputFile = (dir.path() / "missing" / "handler.log").wstring();
  EXPECT_EQ(handler.Start(TestHandlerPath(), 0, L""), StartFailed);
  EXPECT_EQ(FailureOf(handler).Failure, EChannelFailure::LaunchFailed);
  EXPECT_NE(handler.GetStartErrorNumber(), 0u);
  EXPECT_EQ(handler.GetHandlerExit().How, EHandlerEnd::None);
}

// --- Queries --------------------------------------------------------------------------------

TEST(HandlerQueries, HandlerInfoReadsAllThreeValues) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  CHandlerInfo info;
  ASSERT_EQ(started.handler.RequestHandlerInfo(info), Ok);
  EXPECT_EQ(info.Name, pendrel_test::kDefaultHandlerName);
  EXPECT_EQ(info.Description, pendrel_test::kDefaultHandlerDescription);
  EXPECT_EQ(info.Version, pendrel_test::kDefaultHandlerVersion);
  EXPECT_EQ(started.Received(1).at(0), "RequestHandlerInfo");
}

TEST(HandlerQueries, HandlerInfoWithoutVersionLeavesInfoUnchanged) {
  StartedHandler started(L"--omit Version");
  ASSERT_EQ(started.StartResult(), Ok);
  CHandlerInfo info;
  info.Name = L"kept";
  EXPECT_EQ(started.handler.RequestHandlerInfo(info), Ok);
  EXPECT_EQ(info.Name, L"kept");
  EXPECT_TRUE(info.Description.empty());
  EXPECT_TRUE(info.Version.empty());
}

TEST(HandlerQueries, TaskInfoSendsTheTaskCode) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  CHandlerTaskInfo info;
  ASSERT_EQ(started.handler.RequestHandlerTaskInfo(L"T7", info), Ok);
  EXPECT_EQ(info.Name, L"Task T7");
  EXPECT_EQ(info.Description, L"Test task T7");
  ASSERT_EQ(started.handler.RequestHandlerTaskInfo(L"\u00e9\u20ac", info), Ok);
  const auto received = started.Received(2);
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[0], "RequestHandlerTaskInfo&TaskCode=T7");
  EXPECT_EQ(received[1], "RequestHandlerTaskInfo&TaskCode=\xc3\xa9\xe2\x82\xac");
}

TEST(HandlerQueries, TaskInfoWithoutDescriptionLeavesInfoUnchanged) {
  StartedHandler started(L"--omit Description");
  ASSERT_EQ(started.StartResult(), Ok);
  CHandlerTaskInfo info;
  info.Name = L"kept";
  EXPECT_EQ(started.handler.RequestHandlerTaskInfo(L"T1", info), Ok);
  EXPECT_EQ(info.Name, L"kept");
}

TEST(HandlerQueries, InputFileSizeFillsTheLow32BitsOnly) {
  StartedHandler started(L"--input-file-size 5000000000");
  ASSERT_EQ(started.StartResult(), Ok);
  unsigned long long size = 0;
  ASSERT_EQ(started.handler.RequestInputFileSize(size), Ok);
  EXPECT_EQ(size, 5000000000ull & 0xFFFFFFFFull);
  size = 0xABCD000000000000ull;
  ASSERT_EQ(started.handler.RequestInputFileSize(size), Ok);
  EXPECT_EQ(size, 0xABCD000000000000ull | (5000000000ull & 0xFFFFFFFFull));
  EXPECT_EQ(started.Received(1).at(0), "RequestInputFileSize");
}

TEST(HandlerQueries, InputFileSizeReadsSmallValuesAndIgnoresMissingOnes) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  unsigned long long size = 0;
  ASSERT_EQ(started.handler.RequestInputFileSize(size), Ok);
  EXPECT_EQ(size, 123456789u);
  StartedHandler without(L"--omit InputFileSize");
  ASSERT_EQ(without.StartResult(), Ok);
  size = 77;
  ASSERT_EQ(without.handler.RequestInputFileSize(size), Ok);
  EXPECT_EQ(size, 77u);
}

TEST(HandlerQueries, LibVersionIsReadAsADecimal) {
  StartedHandler started(L"--lib-version 17");
  ASSERT_EQ(started.StartResult(), Ok);
  unsigned version = 0;
  ASSERT_EQ(started.handler.RequestLibVersion(version), Ok);
  EXPECT_EQ(version, 17u);
  EXPECT_EQ(started.Received(1).at(0), "RequestLibVersion");
  StartedHandler missing(L"--omit LibVersion");
  ASSERT_EQ(missing.StartResult(), Ok);
  version = 5;
  ASSERT_EQ(missing.handler.RequestLibVersion(version), Ok);
  EXPECT_EQ(version, 5u) << "an empty text ends the stream before anything is read";
  StartedHandler letters(L"--lib-version abc");
  ASSERT_EQ(letters.StartResult(), Ok);
  ASSERT_EQ(letters.handler.RequestLibVersion(version), Ok);
  EXPECT_EQ(version, 0u) << "a failed number read stores 0";
}

TEST(HandlerQueries, AllOutputFilesFillTheCallersResponse) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  Pendrel::CRequest request = SampleRequest();
  request.InputData.push_back(File(Pendrel::Csv, L"a.csv", "1,2\n"));
  Pendrel::CResponse response;
  ASSERT_EQ(started.handler.HandleRequest(request, response), Ok);
  Pendrel::CResponse all;
  ASSERT_EQ(started.handler.RequestAllOutputFiles(all), Ok);
  ASSERT_EQ(all.Data.size(), 1u);
  EXPECT_EQ(all.Data[0].FileName, L"a.csv");
  EXPECT_EQ(started.Received(2).at(1), "RequestAllOutputFiles");
}

// --- Sessions -------------------------------------------------------------------------------

TEST(HandlerSessions, CreateSendsTheQueryText) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  Pendrel::CResponse response;
  ASSERT_EQ(started.handler.OnCreateSession(L"17", L"operator1", L"42", L"H1", L"T7", L"run.log",
                                            600, response),
            Ok);
  EXPECT_EQ(started.Received(1).at(0),
            "OnCreateSession&SessionKey=17&User=operator1&HandleTaskID=42&HandlerCode=H1"
            "&HandlerTaskCode=T7&LogFileName=run.log&TaskTimeoutS=600");
  EXPECT_EQ(response.Session, L"17");
}

TEST(HandlerSessions, TimeoutSendsOnlyItsLow32Bits) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  Pendrel::CResponse response;
  ASSERT_EQ(
      started.handler.OnCreateSession(L"1", L"u", L"2", L"H", L"T", L"l", 1ll << 32, response), Ok);
  ASSERT_EQ(started.handler.OnCreateSession(L"1", L"u", L"2", L"H", L"T", L"l", (1ll << 32) + 5,
                                            response),
            Ok);
  const auto received = started.Received(2);
  ASSERT_EQ(received.size(), 2u);
  EXPECT_NE(received[0].find("&TaskTimeoutS=0"), std::string::npos);
  EXPECT_EQ(received[0].substr(received[0].size() - 15), "&TaskTimeoutS=0");
  EXPECT_EQ(received[1].substr(received[1].size() - 15), "&TaskTimeoutS=5");
}

TEST(HandlerSessions, ValuesGoOutUnescaped) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  Pendrel::CResponse response;
  ASSERT_EQ(
      started.handler.OnCreateSession(L"9", L"a&User=b", L"=", L"\u00e9", L"", L" ", 1, response),
      Ok);
  EXPECT_EQ(started.Received(1).at(0),
            "OnCreateSession&SessionKey=9&User=a&User=b&HandleTaskID==&HandlerCode=\xc3\xa9"
            "&HandlerTaskCode=&LogFileName= &TaskTimeoutS=1");
  // The handler's side splits at the "&": its first "User" is "a".
  EXPECT_EQ(response.Parameters[L"User"], L"a");
}

TEST(HandlerSessions, CloseIsFlushedWithoutAnAnswer) {
  StartedHandler started;
  ASSERT_EQ(started.StartResult(), Ok);
  const auto start = Clock::now();
  started.handler.OnCloseSession();
  EXPECT_LT(Clock::now() - start, 5s) << "half of the 10 s the notice may take to go out";
  EXPECT_EQ(started.Received(1).at(0), "OnCloseSession");
  // No answer came back: the next exchange gets its own answer.
  Pendrel::CResponse response;
  ASSERT_EQ(started.handler.HandleRequest(SampleRequest(L"AFTER"), response), Ok);
  EXPECT_EQ(response.Parameters[L"Command"], L"AFTER");
}

TEST(HandlerSessions, CloseWaitsOutAnUnreadAnswer) {
  StartedHandler started(L"--flood 1");
  ASSERT_EQ(started.StartResult(), Ok);
  started.handler.ResponseTimeoutS = 1;
  // The unrequested message arrives when it arrives, and nobody reads it. A close that comes
  // before it finds nothing unread and returns once its notice is out, so closes are tried
  // (for up to 10 s) until one finds the message there and waits out the response time.
  Clock::duration waited{};
  const auto deadline = Clock::now() + 10s;
  do {
    const auto start = Clock::now();
    started.handler.OnCloseSession();
    waited = Clock::now() - start;
  } while (waited < 900ms && Clock::now() < deadline);
  EXPECT_GE(waited, 900ms) << "no close waited for the unread message";
  EXPECT_LT(waited, 5s);
}

// --- Transaction log ------------------------------------------------------------------------

// Points the log of handlers started on this thread at a folder of the test's own for as
// long as it lives.
class LogFolder {
 public:
  LogFolder() : m_folder(m_dir.path() / "logs") { m_settings.Get().logFolder = Folder(); }
  const std::filesystem::path& Path() const { return m_folder; }
  // The folder as the log takes it, with a separator at the end.
  std::wstring Folder() const {
    return m_folder.wstring() + static_cast<wchar_t>(std::filesystem::path::preferred_separator);
  }
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    if (!std::filesystem::exists(m_folder)) return names;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  std::string Read(const std::string& name) const {
    std::ifstream in(m_folder / name, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

 private:
  TempDir m_dir;
  std::filesystem::path m_folder;
  detail::ScopedHandlerSettings m_settings;
};

// A handler in `mode` whose session "17" fails its second exchange on the pipe.
std::string FailAnExchange(int mode) {
  StartedHandler started(L"--crash-mid-answer 1 --broken-at 2", mode);
  EXPECT_EQ(started.StartResult(), Ok);
  Pendrel::CResponse response;
  EXPECT_EQ(started.handler.OnCreateSession(L"17", L"u", L"1", L"H", L"T", L"l", 60, response), Ok);
  const Pendrel::CRequest request = SampleRequest();
  EXPECT_EQ(started.handler.HandleRequest(request, response), ChannelError);
  return request.ToJsonString();
}

bool IsTimeStamp(const std::string& text) {
  // "DD.MM.YYYY HH:MM:SS"
  if (text.size() != 19) return false;
  const std::string shape = "00.00.0000 00:00:00";
  for (std::size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] == '0' ? !std::isdigit(static_cast<unsigned char>(text[i]))
                        : text[i] != shape[i]) {
      return false;
    }
  }
  return true;
}

TEST(HandlerLog, ModeZeroWritesNothing) {
  LogFolder log;
  FailAnExchange(0);
  EXPECT_FALSE(std::filesystem::exists(log.Path()));
}

TEST(HandlerLog, ModeFourWritesNothing) {
  LogFolder log;
  FailAnExchange(4);
  EXPECT_FALSE(std::filesystem::exists(log.Path()));
}

TEST(HandlerLog, ModeOneWritesTheFullRecord) {
  LogFolder log;
  const std::string request = FailAnExchange(1);
  const auto files = log.Files();
  ASSERT_EQ(files.size(), 1u);
  ASSERT_EQ(files[0].size(), std::string("017-00000-2.txt").size());
  EXPECT_EQ(files[0].substr(0, 4), "017-");
  EXPECT_EQ(files[0].substr(9), "-2.txt");
  const std::string text = log.Read(files[0]);
  EXPECT_TRUE(IsTimeStamp(text.substr(0, 19))) << text.substr(0, 19);
  EXPECT_TRUE(text.substr(19) == AsTextModeLines("\nRequest:\n" + request + "\nResponse:\n\n"));
}

TEST(HandlerLog, ModeTwoWritesTheListing) {
  LogFolder log;
  const std::string request = FailAnExchange(2);
  const auto files = log.Files();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0], "Listing017.txt");
  const std::string text = log.Read(files[0]);
  EXPECT_TRUE(IsTimeStamp(text.substr(0, 19)));
  const std::string rest = text.substr(19);
  EXPECT_EQ(rest.substr(0, 17), " Transaction 017-");
  EXPECT_EQ(rest.substr(22), AsTextModeLines("-2; RequestSize=" + std::to_string(request.size()) +
                                             "; ResponseSize=0\n"));
}

TEST(HandlerLog, ModeThreeWritesBoth) {
  LogFolder log;
  FailAnExchange(3);
  const auto files = log.Files();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[0].substr(0, 4), "017-");
  EXPECT_EQ(files[1], "Listing017.txt");
}

TEST(HandlerLog, TagsPadSessionAndTime) {
  EXPECT_EQ(detail::SessionTag(L"7"), L"007");
  EXPECT_EQ(detail::SessionTag(L"1234"), L"1234");
  EXPECT_EQ(detail::SessionTag(L" 42abc"), L"042");
  EXPECT_EQ(detail::MomentTag(0), L"00000");
  EXPECT_EQ(detail::MomentTag(34299), L"00342");
  EXPECT_EQ(detail::MomentTag(12345678), L"123456");
}

// A record of mode 3 (both files) for session `session` at `elapsedMs`, logged into `log`.
detail::TransactionRecord BothFilesRecord(const LogFolder& log, const std::wstring& session,
                                          std::uint64_t elapsedMs) {
  detail::TransactionRecord record;
  record.mode = 3;
  record.sessionTag = detail::SessionTag(session);
  record.momentTag = detail::MomentTag(elapsedMs);
  record.folder = log.Folder();
  return record;
}

TEST(HandlerLog, EntriesOfOneMomentShareTheFile) {
  LogFolder log;
  const detail::TransactionRecord record = BothFilesRecord(log, L"1234", 500);
  detail::WriteTransactionLog(record, "first", "");
  detail::WriteTransactionLog(record, "second", "answer");
  const auto files = log.Files();
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[0], "1234-00005-2.txt");
  EXPECT_EQ(files[1], "Listing1234.txt");
  const std::string text = log.Read(files[0]);
  const std::size_t first = text.find(AsTextModeLines("\nRequest:\nfirst\nResponse:\n\n"));
  const std::size_t second = text.find(AsTextModeLines("\nRequest:\nsecond\nResponse:\nanswer\n"));
  ASSERT_NE(first, std::string::npos);
  ASSERT_NE(second, std::string::npos);
  EXPECT_LT(first, second);
}

TEST(HandlerLog, FilesAreTextFilesWithTheSystemsLineEnds) {
  LogFolder log;
  detail::WriteTransactionLog(BothFilesRecord(log, L"5", 100), "line one\nline two", "answer");
  const std::string lineEnd = pendrel_test::TextModeLineEnd();
  const std::string full = log.Read("005-00001-2.txt");
  EXPECT_TRUE(IsTimeStamp(full.substr(0, 19)));
  EXPECT_EQ(full.substr(19), lineEnd + "Request:" + lineEnd + "line one" + lineEnd + "line two" +
                                 lineEnd + "Response:" + lineEnd + "answer" + lineEnd);
  const std::string listing = log.Read("Listing005.txt");
  EXPECT_EQ(listing.substr(19),
            " Transaction 005-00001-2; RequestSize=17; ResponseSize=6" + lineEnd);
}

TEST(HandlerLog, SessionTextThatIsNotANumberGivesZero) {
  EXPECT_EQ(detail::SessionTag(L"abc"), L"000");
  EXPECT_EQ(detail::SessionTag(L""), L"000");
}

TEST(HandlerLog, SessionOfAFailedExchangeThatIsNotANumberGivesZero) {
  LogFolder log;
  StartedHandler started(L"--crash-mid-answer 1 --broken-at 2", 2);
  ASSERT_EQ(started.StartResult(), Ok);
  Pendrel::CResponse response;
  ASSERT_EQ(started.handler.OnCreateSession(L"abc", L"u", L"1", L"H", L"T", L"l", 1, response), Ok);
  EXPECT_EQ(started.handler.HandleRequest(SampleRequest(), response), ChannelError);
  EXPECT_EQ(log.Files(), std::vector<std::string>{"Listing000.txt"});
}

}  // namespace
}  // namespace CTolvane
