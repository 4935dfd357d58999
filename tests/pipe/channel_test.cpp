// The channel's life: opening and its time limits, closing and its drain, flushes, the
// error texts, and who may connect.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <utility>

#include "pipe/NamedPipeChannel.h"
#include "tests/pipe/PipeTestSupport.h"
#include "tests/support/WaitFor.h"

namespace {

using Pendrel::EPipeEnd;
using Pendrel::EWaitResult;
using Pendrel::NamedPipeChannel;
using pendrel_test::OwnProcessId;
using pendrel_test::PatternBytes;
using pendrel_test::RawClient;
using pendrel_test::UniquePipeName;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

const std::wstring kOpenTimedOut =
    L"Вышло время ожидания создания нового подключения по именнованным каналам";
const std::wstring kOpenFailed = L"Ошибка открытия канала NamedPipe\n";
const std::wstring kNoClient = L"Нет входящих подключений по каналу NamedPipe\n";

// Opens `server` on `name` and `client` against it, retrying the client until the server's
// endpoint exists (up to 5 s); whether both ends opened.
bool OpenBothEnds(NamedPipeChannel& server, NamedPipeChannel& client, const std::wstring& name) {
  auto opened = std::async(std::launch::async, [&] { return server.Open(name); });
  bool clientOpen = false;
  for (int attempt = 0; attempt < 250 && !clientOpen; ++attempt) {
    clientOpen = client.Open(name, EPipeEnd::Client);
    if (!clientOpen) std::this_thread::sleep_for(20ms);
  }
  return opened.get() && clientOpen;
}

TEST(PipeChannel, HasItsDefaults) {
  const NamedPipeChannel channel;
  EXPECT_EQ(channel.TimeLimitMs(), 60000u);
  EXPECT_EQ(channel.PacketSize(), 32768u);
  EXPECT_EQ(channel.OpenTimeLimitMs(), 10000u);
  EXPECT_EQ(channel.MaxMessageSize(), std::uint64_t{1} << 30);
  EXPECT_EQ(channel.ExpectedPeerProcessId(), 0u);
  EXPECT_FALSE(channel.IsConnected());
  EXPECT_FALSE(channel.IsConnecting());
  EXPECT_FALSE(channel.HasError());
}

TEST(PipeChannel, OpenWithoutClientGivesUpAfterTenSecondsWith72CharacterText) {
  NamedPipeChannel server;
  const auto start = Clock::now();
  EXPECT_FALSE(server.Open(UniquePipeName()));
  const auto waited = Clock::now() - start;
  EXPECT_GE(waited, 10s);
  EXPECT_LT(waited, 30s) << "half of the worker's own 60 s limit";
  const std::wstring text = server.ErrorText();
  EXPECT_EQ(text, kOpenTimedOut);
  EXPECT_EQ(text.size(), 72u);
  // The worker goes on waiting for its own, longer limit...
  EXPECT_TRUE(server.IsConnecting());
  EXPECT_FALSE(server.IsConnected());
  // ...until Close ends that wait at once.
  const auto closing = Clock::now();
  server.Close();
  EXPECT_LT(Clock::now() - closing, 30s) << "half of the 60 s the worker would wait";
  EXPECT_FALSE(server.IsConnecting());
}

TEST(PipeChannel, WorkerStopsWaitingForClientAfterItsTimeLimit) {
  NamedPipeChannel server;
  server.SetOpenTimeLimitMs(100);
  server.SetTimeLimitMs(600);
  EXPECT_FALSE(server.Open(UniquePipeName()));
  EXPECT_EQ(server.TakeErrorText(), kOpenTimedOut);
  std::string message;
  ASSERT_EQ(server.WaitForMessage(message, 5s), EWaitResult::Error);
  EXPECT_EQ(server.ErrorText(), kNoClient);
  EXPECT_FALSE(server.IsConnecting());
  EXPECT_EQ(server.State(), Pendrel::EChannelState::Failed);
}

TEST(PipeChannel, ClientEndFailsAtOnceWithoutServer) {
  NamedPipeChannel client;
  const auto start = Clock::now();
  EXPECT_FALSE(client.Open(UniquePipeName(), EPipeEnd::Client));
  EXPECT_LT(Clock::now() - start, 5s);
  EXPECT_EQ(client.ErrorText(), kOpenFailed);
  EXPECT_FALSE(client.IsConnected());
  EXPECT_EQ(client.State(), Pendrel::EChannelState::Failed);
}

TEST(PipeChannel, ServerEndAndClientEndExchangeMessagesInOrder) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  NamedPipeChannel client;
  // Answers come before they are waited for: the server end keeps them all.
  server.SetMaxQueuedMessages(20);
  ASSERT_TRUE(OpenBothEnds(server, client, name));
  EXPECT_TRUE(server.IsConnected());
  EXPECT_TRUE(client.IsConnected());
  EXPECT_FALSE(server.IsConnecting());

  for (unsigned i = 0; i < 20; ++i) server.Post(PatternBytes(i * 5000, i));
  for (unsigned i = 0; i < 20; ++i) client.Post(PatternBytes(i * 7000, 100 + i));
  for (unsigned i = 0; i < 20; ++i) {
    std::string message;
    ASSERT_EQ(client.WaitForMessage(message, 10s), EWaitResult::Message) << i;
    EXPECT_TRUE(message == PatternBytes(i * 5000, i)) << i;
    ASSERT_EQ(server.WaitForMessage(message, 10s), EWaitResult::Message) << i;
    EXPECT_TRUE(message == PatternBytes(i * 7000, 100 + i)) << i;
  }
  EXPECT_FALSE(server.HasError());
  EXPECT_FALSE(client.HasError());
}

TEST(PipeChannel, CarriesAMessageMovedIntoPostWhole) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  NamedPipeChannel client;
  ASSERT_TRUE(OpenBothEnds(server, client, name));

  // Several packets' worth, handed to the queue without a copy.
  const std::string expected = PatternBytes(5 * 32768 + 17, 9);
  std::string message = expected;
  EXPECT_TRUE(server.Post(std::move(message)));
  std::string received;
  ASSERT_EQ(client.WaitForMessage(received, 10s), EWaitResult::Message);
  EXPECT_TRUE(received == expected);
  EXPECT_FALSE(client.HasError());
}

TEST(PipeChannel, TakesMessagesOffTheQueueOneByOne) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  std::string message;
  EXPECT_FALSE(server.TakeMessage(message));
  ASSERT_TRUE(client.WriteMessage("a"));
  ASSERT_TRUE(client.WriteMessage("b"));
  pendrel_test::WaitFor([&server] { return server.ReceivedCount() >= 2; }, 5s, 1ms);
  EXPECT_EQ(server.ReceivedCount(), 2u);
  EXPECT_TRUE(server.HasMessage());
  ASSERT_TRUE(server.TakeMessage(message));
  EXPECT_EQ(message, "a");
  ASSERT_TRUE(server.TakeMessage(message));
  EXPECT_EQ(message, "b");
  EXPECT_FALSE(server.TakeMessage(message));
  EXPECT_EQ(message, "b");
}

TEST(PipeChannel, WaitForMessageTimesOutWhenNothingComes) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  std::string message = "untouched";
  const auto start = Clock::now();
  EXPECT_EQ(server.WaitForMessage(message, 200ms), EWaitResult::TimedOut);
  EXPECT_GE(Clock::now() - start, 200ms);
  EXPECT_EQ(message, "untouched");
}

// Ask with no answer in time: the question has gone out, the wait ends at its limit, and
// the answer that comes later is the next message.
TEST(PipeChannel, AskTimesOutWhenNoAnswerComes) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  std::string answer = "untouched";
  EXPECT_EQ(server.Ask("no time", answer, 0ms), EWaitResult::TimedOut);
  EXPECT_EQ(answer, "untouched");
  std::string packet;
  ASSERT_TRUE(client.Read(packet));
  EXPECT_EQ(packet.substr(8, 7), "no time");
  ASSERT_TRUE(client.WriteMessage("late"));
  ASSERT_EQ(server.WaitForMessage(answer, 5s), EWaitResult::Message);
  EXPECT_EQ(answer, "late");
  EXPECT_FALSE(server.HasError());
}

TEST(PipeChannel, ReportsPeerThatLeavesAsReadFailure) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  client.Disconnect();
  std::string message;
  ASSERT_EQ(server.WaitForMessage(message, 5s), EWaitResult::Error);
  EXPECT_EQ(server.TakeErrorText(), L"Ошибка чтения данных через NamedPipe (1) #" +
                                        std::to_wstring(pendrel_test::PeerGoneCode()) + L"\n");
  EXPECT_FALSE(server.HasError());
  // Once the worker has ended, posted messages stay queued and Close does not wait for them.
  EXPECT_FALSE(server.IsConnected());
  server.Post("too late");
  const auto start = Clock::now();
  server.Close();
  EXPECT_LT(Clock::now() - start, 30s) << "half of the 60 s a drain may take";
}

TEST(PipeChannel, DeliversWhatThePeerSentBeforeLeaving) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  ASSERT_TRUE(client.WriteMessage("last"));
  client.Disconnect();
  std::string message;
  ASSERT_EQ(server.WaitForMessage(message, 5s), EWaitResult::Message);
  EXPECT_EQ(message, "last");
  EXPECT_EQ(server.WaitForMessage(message, 5s), EWaitResult::Error);
}

TEST(PipeChannel, CloseWaitsForQueuedMessagesToGoOut) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  constexpr unsigned kMessages = 8;
  constexpr std::size_t kSize = 200000;  // 7 packets each, more than the pipe holds
  for (unsigned i = 0; i < kMessages; ++i) server.Post(PatternBytes(kSize, i));

  // A slow reader: Close has to wait for it.
  auto reader = std::async(std::launch::async, [&client] {
    std::string packet;
    while (client.Read(packet, 10s)) std::this_thread::sleep_for(2ms);
    return client.PacketsRead();
  });
  const auto start = Clock::now();
  server.Close();
  EXPECT_LT(Clock::now() - start, 30s);
  EXPECT_EQ(reader.get(), kMessages * 7u);
  EXPECT_TRUE(client.Failed());
}

TEST(PipeChannel, CloseGivesUpDrainingAfterTimeLimitAndDropsTheRest) {
  NamedPipeChannel server;
  server.SetTimeLimitMs(1000);
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  // Nobody reads: far more than the pipe holds stays queued.
  for (unsigned i = 0; i < 3; ++i) server.Post(PatternBytes(1000000, i));
  const auto start = Clock::now();
  server.Close();
  const auto waited = Clock::now() - start;
  EXPECT_GE(waited, 700ms);
  EXPECT_LT(waited, 5s);
  std::string packet;
  while (client.Read(packet, 2s)) {
  }
  EXPECT_LT(client.PacketsRead(), 3u * 31u);
}

TEST(PipeChannel, ReportsPacketThatCannotBeWrittenWithinTimeLimit) {
  NamedPipeChannel server;
  server.SetTimeLimitMs(300);
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  server.Post(PatternBytes(4000000, 1));
  std::string message;
  ASSERT_EQ(server.WaitForMessage(message, 10s), EWaitResult::Error);
  EXPECT_EQ(server.TakeErrorText(), L"Ошибка записи данных в NamedPipe #258\n");
}

TEST(PipeChannel, FlushIsReportedOnceQueuedMessagesAreWritten) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  // Larger than the pipe holds: it cannot be written before the client reads.
  server.Post(PatternBytes(2000000, 1));
  server.RequestFlush();
  EXPECT_FALSE(server.IsFlushed());
  EXPECT_FALSE(server.WaitForFlush(300ms));
  EXPECT_TRUE(server.IsFlushRequested());

  auto reader = std::async(std::launch::async, [&client] {
    std::string packet;
    for (int i = 0; i < 62; ++i) {
      if (!client.Read(packet)) return false;
    }
    return true;
  });
  EXPECT_TRUE(server.WaitForFlush(10s));
  EXPECT_TRUE(server.IsFlushed());
  EXPECT_FALSE(server.IsFlushRequested());
  EXPECT_TRUE(reader.get());
}

TEST(PipeChannel, FlushOfClosedChannelIsNotWaitedFor) {
  NamedPipeChannel channel;
  channel.RequestFlush();
  const auto start = Clock::now();
  EXPECT_FALSE(channel.WaitForFlush(5s));
  EXPECT_LT(Clock::now() - start, 2500ms) << "half of the 5 s it was given";
}

TEST(PipeChannel, SecondClientIsRefused) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  RawClient first;
  ASSERT_TRUE(OpenWithRawClient(server, first, name));
  RawClient second;
  EXPECT_NE(second.ConnectOnce(name), 0u);
  NamedPipeChannel secondChannel;
  EXPECT_FALSE(secondChannel.Open(name, EPipeEnd::Client));
  EXPECT_EQ(secondChannel.ErrorText(), kOpenFailed);
  // The first connection is unharmed.
  server.Post("still here");
  std::string packet;
  ASSERT_TRUE(first.Read(packet));
  EXPECT_EQ(packet.substr(8, 10), "still here");
}

TEST(PipeChannel, SecondServerOnTakenNameFails) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  ASSERT_TRUE(server.Listen(name));
  NamedPipeChannel second;
  const auto start = Clock::now();
  EXPECT_FALSE(second.Open(name));
  EXPECT_LT(Clock::now() - start, 5s);
  EXPECT_EQ(second.ErrorText(), kOpenFailed);
  // The first server end still takes its client.
  RawClient client;
  auto connected = std::async(std::launch::async, [&] { return server.WaitForConnection(); });
  ASSERT_TRUE(client.Connect(name));
  EXPECT_TRUE(connected.get());
  EXPECT_TRUE(server.IsConnected());
}

TEST(PipeChannel, NameIsFreeAgainAfterClose) {
  const std::wstring name = UniquePipeName();
  for (int round = 0; round < 2; ++round) {
    NamedPipeChannel server;
    RawClient client;
    ASSERT_TRUE(OpenWithRawClient(server, client, name)) << round;
  }
}

TEST(PipeChannel, RefusesClientOfAnotherProcessThanExpected) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  server.SetExpectedPeerProcessId(OwnProcessId() + 1);
  server.SetOpenTimeLimitMs(1500);
  auto opened = std::async(std::launch::async, [&] { return server.Open(name); });
  RawClient client;
  ASSERT_TRUE(client.Connect(name));
  // Disconnected before a single byte.
  EXPECT_TRUE(client.WaitForFailure());
  EXPECT_EQ(client.PacketsRead(), 0u);
  EXPECT_FALSE(opened.get());
  EXPECT_EQ(server.ErrorText(), kOpenTimedOut);
  EXPECT_FALSE(server.IsConnected());
  EXPECT_TRUE(server.IsConnecting());
}

TEST(PipeChannel, AcceptsClientOfTheExpectedProcess) {
  NamedPipeChannel server;
  server.SetExpectedPeerProcessId(OwnProcessId());
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  EXPECT_TRUE(server.IsConnected());
}

TEST(PipeChannel, ReopeningClosesTheEarlierConnection) {
  NamedPipeChannel server;
  RawClient first;
  ASSERT_TRUE(OpenWithRawClient(server, first, UniquePipeName()));
  server.Post("dropped?");
  RawClient second;
  ASSERT_TRUE(OpenWithRawClient(server, second, UniquePipeName()));
  EXPECT_TRUE(first.WaitForFailure());
  server.Post("to the second");
  std::string packet;
  ASSERT_TRUE(second.Read(packet));
  EXPECT_EQ(packet.substr(8, 13), "to the second");
}

}  // namespace

namespace {

TEST(PipeChannelListen, EndpointExistsBeforeTheClientStarts) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  server.SetOpenTimeLimitMs(5000);
  ASSERT_TRUE(server.Listen(name));
  // A client that connects once, without retrying, finds the endpoint already there.
  RawClient client;
  EXPECT_EQ(client.ConnectOnce(name), 0u);
  EXPECT_TRUE(server.WaitForConnection());
  EXPECT_TRUE(server.IsConnected());
  EXPECT_FALSE(server.HasError());
}

TEST(PipeChannelListen, RefusesANameThatIsTaken) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel first;
  ASSERT_TRUE(first.Listen(name));
  NamedPipeChannel second;
  EXPECT_FALSE(second.Listen(name));
  EXPECT_EQ(second.ErrorText(), kOpenFailed);
  EXPECT_FALSE(second.IsConnecting());
  EXPECT_FALSE(second.WaitForConnection());
}

TEST(PipeChannelListen, PeerExitEndsTheWaitAtOnce) {
  NamedPipeChannel server;
  ASSERT_TRUE(server.Listen(UniquePipeName()));
  const auto start = Clock::now();
  // Tells of the exit once WaitForConnection has started the worker's wait for a client.
  std::thread notifier([&server] {
    pendrel_test::WaitFor([&server] { return server.IsConnecting(); }, 5s, 1ms);
    server.NotifyPeerExited();
  });
  EXPECT_FALSE(server.WaitForConnection());
  notifier.join();
  EXPECT_LT(Clock::now() - start, 5s) << "half of the 10 s the wait would take";
  EXPECT_EQ(server.ErrorText(), kNoClient);
  EXPECT_FALSE(server.IsConnecting());
}

TEST(PipeChannelListen, PeerExitBeforeWaitingFailsTheWait) {
  NamedPipeChannel server;
  ASSERT_TRUE(server.Listen(UniquePipeName()));
  server.NotifyPeerExited();
  const auto start = Clock::now();
  EXPECT_FALSE(server.WaitForConnection());
  EXPECT_LT(Clock::now() - start, 5s) << "half of the 10 s the wait would take";
  EXPECT_EQ(server.ErrorText(), kNoClient);
}

TEST(PipeChannelListen, ClosingUnusedEndpointFreesTheName) {
  const std::wstring name = UniquePipeName();
  {
    NamedPipeChannel first;
    ASSERT_TRUE(first.Listen(name));
    first.Close();
  }
  NamedPipeChannel second;
  EXPECT_TRUE(second.Listen(name));
}

TEST(PipeChannelListen, PeerExitAfterConnectingChangesNothing) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  ASSERT_TRUE(server.Listen(name));
  RawClient client;
  ASSERT_TRUE(client.Connect(name));
  ASSERT_TRUE(server.WaitForConnection());
  server.NotifyPeerExited();
  // A message each way after the notice: the worker has dealt with it and serves on.
  server.Post("after");
  std::string packet;
  ASSERT_TRUE(client.Read(packet));
  EXPECT_EQ(packet.substr(8, 5), "after");
  ASSERT_TRUE(client.WriteMessage("back"));
  std::string message;
  ASSERT_EQ(server.WaitForMessage(message, 5s), EWaitResult::Message);
  EXPECT_EQ(message, "back");
  EXPECT_TRUE(server.IsConnected());
  EXPECT_FALSE(server.HasError());
}

}  // namespace

namespace {

TEST(PipeChannelReceiveQueue, WaitUntilNothingReceivedSeesTheQueueEmptied) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(pendrel_test::OpenWithRawClient(server, client, name));
  EXPECT_TRUE(server.WaitUntilNothingReceived(0ms)) << "nothing received yet";
  ASSERT_TRUE(client.WriteMessage("hi"));
  std::string message;
  ASSERT_EQ(server.WaitForMessage(message, 5s), EWaitResult::Message);
  ASSERT_TRUE(client.WriteMessage("ho"));
  ASSERT_TRUE(pendrel_test::WaitFor([&server] { return server.HasMessage(); }, 5s, 1ms));
  EXPECT_FALSE(server.WaitUntilNothingReceived(20ms));
  // The pause lets the take land while the wait below is blocked, so that the wait must be
  // woken by it. It orders nothing: should the take come first, the wait finds the queue
  // empty at once, which it must report just the same.
  std::thread taker([&server] {
    std::this_thread::sleep_for(30ms);
    std::string taken;
    server.TakeMessage(taken);
  });
  EXPECT_TRUE(server.WaitUntilNothingReceived(5s));
  taker.join();
}

}  // namespace

namespace {

using Pendrel::CChannelFailure;
using Pendrel::EChannelFailure;
using Pendrel::EChannelState;

// Every failure's text, byte for byte: hosts' logs and tools match these.
struct FailureTextCase {
  EChannelFailure failure;
  std::uint32_t code;
  const wchar_t* text;
};

const FailureTextCase kFailureTexts[] = {
    {EChannelFailure::None, 0, L""},
    {EChannelFailure::OpenTimedOut, 0,
     L"Вышло время ожидания создания нового подключения по именнованным каналам"},
    {EChannelFailure::OpenFailed, 98, L"Ошибка открытия канала NamedPipe\n"},
    {EChannelFailure::NoClient, 0, L"Нет входящих подключений по каналу NamedPipe\n"},
    {EChannelFailure::Unhandled, 0, L"Необработанное исключение при создании канала NamedPipe\n"},
    {EChannelFailure::PeerGone, 109, L"Ошибка чтения данных через NamedPipe (1) #109\n"},
    {EChannelFailure::ReadFailed, 13, L"Ошибка чтения данных через NamedPipe (2) #13\n"},
    {EChannelFailure::PacketTimedOut, 7,
     L"Ошибка чтения данных через NamedPipe - вышло время ожидания пакета: 0 / 7\n"},
    {EChannelFailure::WriteFailed, 258, L"Ошибка записи данных в NamedPipe #258\n"},
    {EChannelFailure::LaunchFailed, 2, L"Ошибка запуска обработчика #2\n"},
};

TEST(PipeChannelFailure, EachFailureHasItsText) {
  for (const FailureTextCase& c : kFailureTexts) {
    EXPECT_EQ(NamedPipeChannel::TextOf({c.failure, c.code}), c.text) << static_cast<int>(c.failure);
  }
}

TEST(PipeChannelFailure, IsReportedAsCodeNextToItsText) {
  NamedPipeChannel client;
  client.SetOpenTimeLimitMs(2000);
  ASSERT_FALSE(client.Open(UniquePipeName(), EPipeEnd::Client));
  const CChannelFailure failure = client.Failure();
  EXPECT_EQ(failure.Failure, EChannelFailure::OpenFailed);
  EXPECT_NE(failure.Code, 0u) << "the system's error number";
  EXPECT_EQ(client.ErrorText(), NamedPipeChannel::TextOf(failure));
  std::wstring text;
  EXPECT_EQ(client.TakeFailure(text), failure);
  EXPECT_EQ(text, kOpenFailed);
  EXPECT_EQ(client.Failure(), CChannelFailure());
  EXPECT_FALSE(client.HasError());
}

TEST(PipeChannelState, GoesFromListeningThroughConnectedToClosed) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  EXPECT_EQ(server.State(), EChannelState::Closed);
  ASSERT_TRUE(server.Listen(name));
  EXPECT_EQ(server.State(), EChannelState::Listening);
  auto connected = std::async(std::launch::async, [&server] { return server.WaitForConnection(); });
  NamedPipeChannel client;
  ASSERT_TRUE(client.Open(name, EPipeEnd::Client)) << "the endpoint exists since Listen";
  ASSERT_TRUE(connected.get());
  EXPECT_EQ(server.State(), EChannelState::Connected);
  EXPECT_EQ(client.State(), EChannelState::Connected);
  server.Close();
  EXPECT_EQ(server.State(), EChannelState::Closed);
  // The client's worker finds the pipe gone and fails.
  std::string message;
  EXPECT_EQ(client.WaitForMessage(message, 10s), EWaitResult::Error);
  EXPECT_EQ(client.State(), EChannelState::Failed);
  EXPECT_EQ(client.Failure().Failure, EChannelFailure::PeerGone);
}

TEST(PipeChannelInterrupt, WakesAWaitingReaderAtOnceUntilClose) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  NamedPipeChannel client;
  ASSERT_TRUE(OpenBothEnds(server, client, name));
  auto waiting = std::async(std::launch::async, [&client] {
    std::string message;
    return client.WaitForMessage(message, std::chrono::milliseconds::max());
  });
  client.InterruptWaits();
  ASSERT_EQ(waiting.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(waiting.get(), EWaitResult::Interrupted);
  // Sticky: a message that arrives later is not taken.
  server.Post("late");
  std::string message;
  EXPECT_EQ(client.WaitForMessage(message, 0ms), EWaitResult::Interrupted);
  EXPECT_TRUE(message.empty());
  client.Close();
  EXPECT_EQ(client.WaitForMessage(message, 0ms), EWaitResult::TimedOut) << "Close undoes it";
}

}  // namespace

TEST(PipeChannelInterrupt, WaitForFailureSeesThePeerLeaveWithoutTakingMessages) {
  NamedPipeChannel server;
  RawClient client;
  ASSERT_TRUE(OpenWithRawClient(server, client, UniquePipeName()));
  ASSERT_TRUE(client.WriteMessage("before leaving"));
  client.Disconnect();
  auto waiting = std::async(std::launch::async, [&server] { return server.WaitForFailure(); });
  ASSERT_EQ(waiting.wait_for(10s), std::future_status::ready);
  EXPECT_TRUE(waiting.get());
  std::string message;
  EXPECT_EQ(server.WaitForMessage(message, 0ms), EWaitResult::Message) << "left in the queue";
  EXPECT_EQ(message, "before leaving");
}

TEST(PipeChannelInterrupt, WaitForFailureEndsWithoutFailureWhenInterrupted) {
  const std::wstring name = UniquePipeName();
  NamedPipeChannel server;
  NamedPipeChannel client;
  ASSERT_TRUE(OpenBothEnds(server, client, name));
  auto waiting = std::async(std::launch::async, [&client] { return client.WaitForFailure(); });
  client.InterruptWaits();
  ASSERT_EQ(waiting.wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(waiting.get());
  EXPECT_TRUE(client.IsConnected());
}
